#include "response/compsave.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>

#include "elements/feelem.hpp"
#include "elements/response_arrays.hpp"
#include "model/fedof.hpp"
#include "model/femodel.hpp"
#include "model/fileio.hpp"
#include "model/files.hpp"
#include "run/services/logger.hpp"
#include "run/services/loglines.hpp"
#include "run/services/vkcore.hpp"

namespace {

void RaiseAtomically(double& maximum, double value) {
  std::atomic_ref<double> shared(maximum);
  double seen = shared.load(std::memory_order_relaxed);
  while (seen < value && !shared.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
  }
}

template <class T>
Array<T> AllocateCleared(std::int64_t count) {
  Array<T> array = ARRAYS_ALLOCATE<T>(count);
  std::fill_n(array.get(), count, T{});
  return array;
}

// int32 count, then that many values.
void WriteValues(std::string_view stem, const float* values, std::int32_t count) {
  FILEIO_OPENWRITE(FILEIO::WriteUnit, FILEIO_NUMBEREDNAME(stem, VKCORE::LCaseId));
  FILEIO_WRITEVALUE(count);
  FILEIO_WRITEARRAY(values, count);
  FILEIO_FLUSHCLOSE(FILEIO::WriteUnit);
}

TotalsRecord Narrow(const ResponseTotals& totals, double maxDisValue) {
  return {.LoadCase = VKCORE::LCaseId,
          .Kind = VKCORE::LoadCaseKind,
          .ARQua = VKCORE::SolveQuality,
          .SEner = static_cast<float>(totals[TotalEnergy]),
          .MatVolume = static_cast<float>(totals[TotalSharpVolume]),
          .BStress = static_cast<float>(totals[TotalBoundaryStress]),
          .MaxDis = static_cast<float>(maxDisValue),
          .Rx = static_cast<float>(VKCORE::AppliedLoadSum[0]),
          .Ry = static_cast<float>(VKCORE::AppliedLoadSum[1]),
          .Rz = static_cast<float>(VKCORE::AppliedLoadSum[2])};
}

void WriteTotals(const TotalsRecord& record) {
  FILEIO_OPENWRITE(FILEIO::WriteUnit, FILEIO_NUMBEREDNAME(FILES::Totals.name, VKCORE::LCaseId));
  FILEIO_WRITEVALUE(record);
  FILEIO_FLUSHCLOSE(FILEIO::WriteUnit);
}

void PostTotals(const TotalsRecord& record) {
  LOGGER_POSTDATA(LOGLINES::SEner.text, record.SEner);
  LOGGER_POSTDATA(LOGLINES::MatVolume.text, record.MatVolume);
  LOGGER_POSTDATA(LOGLINES::BStress.text, record.BStress);
  LOGGER_POSTDATA(LOGLINES::MaxDis.text, record.MaxDis);
  LOGGER_POSTDATA(LOGLINES::Rx.text, record.Rx);
  LOGGER_POSTDATA(LOGLINES::Ry.text, record.Ry);
  LOGGER_POSTDATA(LOGLINES::Rz.text, record.Rz);
}

}  // namespace

void COMPSAVE_INITRESPONSE(std::int32_t numTc, std::int32_t numNodes) {
  RESPONSE::NumTc = numTc;
  RESPONSE::NumNodes = numNodes;
  const std::int32_t tc = std::max(numTc, 0);
  const std::int32_t nodes = std::max(numNodes, 0);
  RESPONSE::TcCounts = AllocateCleared<std::int16_t>(tc);
  RESPONSE::TcValues = AllocateCleared<float>(tc);
  RESPONSE::AmsCounts = AllocateCleared<std::int16_t>(nodes);
  RESPONSE::AmsValues = AllocateCleared<float>(nodes);
  RESPONSE::AmsSigns = AllocateCleared<float>(nodes);
  RESPONSE::DisValues = AllocateCleared<float>(nodes);
}

void COMPSAVE_FREERESPONSE() {
  RESPONSE::TcCounts.reset();
  RESPONSE::TcValues.reset();
  RESPONSE::AmsCounts.reset();
  RESPONSE::AmsValues.reset();
  RESPONSE::AmsSigns.reset();
  RESPONSE::DisValues.reset();
}

double COMPSAVE_MAGNITUDES() {
  double maxDisValue = 0.0;
  const std::int32_t* map = FEDOF::NodeDofMap.get();
  const double* displacements = FEDOF::Displacements.get();
  float* magnitudes = RESPONSE::DisValues.get();
#pragma omp parallel for schedule(static)
  for (std::int64_t node = 0; node < RESPONSE::NumNodes; ++node) {
    double free = 0.0;
    double full = 0.0;
    for (int k = 0; k < 3; ++k) {
      const std::int32_t dof = map[3 * node + k];
      const double u = FEDOF_VALUE(dof, k, displacements);
      full += u * u;
      if (dof > 0) free += u * u;
    }
    magnitudes[node] = static_cast<float>(std::sqrt(full));
    RaiseAtomically(maxDisValue, std::sqrt(free));
  }
  return maxDisValue;
}

void COMPSAVE_REDUCETC() {
  float smallest = std::numeric_limits<float>::max();
  for (std::int32_t i = 0; i < RESPONSE::NumTc; ++i) {
    if (RESPONSE::TcCounts[i] <= 0) continue;
    RESPONSE::TcValues[i] /= static_cast<float>(RESPONSE::TcCounts[i]);
    smallest = std::min(smallest, RESPONSE::TcValues[i]);
  }
  for (std::int32_t i = 0; i < RESPONSE::NumTc; ++i)
    if (RESPONSE::TcCounts[i] == 0) RESPONSE::TcValues[i] = smallest;
}

void COMPSAVE_REDUCEAMS() {
  for (std::int32_t i = 0; i < RESPONSE::NumNodes; ++i) {
    if (RESPONSE::AmsCounts[i] <= 0) continue;
    const float average =
        std::fabs(RESPONSE::AmsValues[i] / static_cast<float>(RESPONSE::AmsCounts[i]));
    RESPONSE::AmsValues[i] = RESPONSE::AmsSigns[i] < 0.0f ? -average : average;
  }
}

void COMPSAVE_BLENDPREVIOUS(int unit, std::string_view fileName, float factor) {
  if (!STREAM_EXISTS(fileName)) return;
  const std::int32_t count = std::max(RESPONSE::NumTc, 0);
  const Array<float> previous = AllocateCleared<float>(count);
  FILEIO_OPENREAD(unit, fileName);
  // The stored count isn't compared with the model's: as many values as the model has are read.
  if (FILEIO_READVALUE<std::int32_t>() > 0)
    FILEIO_READBLOCK(previous.get(), std::int64_t{count} * std::int64_t{sizeof(float)});
  FILEIO_CLOSEREAD(unit);
  for (std::int32_t i = 0; i < count; ++i)
    RESPONSE::TcValues[i] = RESPONSE::TcValues[i] * (1.0f - factor) + previous[i] * factor;
}

void VKCORE_COMPSAVERESPONSE() {
  COMPSAVE_INITRESPONSE(FEMODEL::NumTp, FEMODEL::NumNodes);
  const double maxDisValue = COMPSAVE_MAGNITUDES();
  ResponseTotals totals;
  FEELEM_RESPONSE(FEDOF::Displacements.get(), totals);
  COMPSAVE_REDUCETC();
  COMPSAVE_REDUCEAMS();
  if (VKCORE::TcBlendFactor > 0.0f)
    COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit,
                           FILEIO_NUMBEREDNAME(FILES::Criterion.name, VKCORE::LCaseId),
                           VKCORE::TcBlendFactor);
  WriteValues(FILES::Criterion.name, RESPONSE::TcValues.get(), RESPONSE::NumTc);
  WriteValues(FILES::Stress.name, RESPONSE::AmsValues.get(), RESPONSE::NumNodes);
  WriteValues(FILES::Magnitudes.name, RESPONSE::DisValues.get(), RESPONSE::NumNodes);
  COMPSAVE_FREERESPONSE();
  const TotalsRecord record = Narrow(totals, maxDisValue);
  WriteTotals(record);
  PostTotals(record);
}
