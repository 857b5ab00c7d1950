#include "model/fenod.hpp"

#include <algorithm>
#include <cstdint>

#include "model/fedof.hpp"
#include "model/femodel.hpp"
#include "model/fileio.hpp"
#include "model/files.hpp"

namespace {

std::int64_t NumNodalValues() { return 3 * std::int64_t{std::max(FEMODEL::NumNodes, 0)}; }

// The two header words, which nothing is done with, and the values. Soft: false on a short file.
bool ReadNodalValues(float* values) {
  std::int32_t header[2];
  return STREAM_READ(FILEIO::ReadStream, header, sizeof header) &&
         STREAM_READ(FILEIO::ReadStream, values,
                     NumNodalValues() * static_cast<std::int64_t>(sizeof(float)));
}

}  // namespace

void FENOD_SAVEDISP(int unit, std::string_view fileName, const double* displacements) {
  const auto values = ARRAYS_ALLOCATE<float>(NumNodalValues());
  float* target = values.get();
  const std::int32_t* map = FEDOF::NodeDofMap.get();
  const std::int64_t nodes = FEMODEL::NumNodes;
#pragma omp parallel for schedule(static)
  for (std::int64_t node = 0; node < nodes; ++node)
    for (int k = 0; k < 3; ++k)
      target[3 * node + k] = static_cast<float>(FEDOF_VALUE(map[3 * node + k], k, displacements));
  FILEIO_OPENWRITE(unit, fileName);
  FILEIO_WRITEVALUE(FILES::SaveKind);
  FILEIO_WRITEVALUE(static_cast<std::int32_t>(NumNodalValues()));
  FILEIO_WRITEARRAY(values.get(), NumNodalValues());
  FILEIO_FLUSHCLOSE(unit);
}

bool FENOD_LOADDISP(int unit, std::string_view fileName, double* displacements) {
  if (!STREAM_EXISTS(fileName)) {
    std::fill_n(displacements, FEDOF::NumEquations, 0.0);
    return false;
  }
  const auto values = ARRAYS_ALLOCATE<float>(NumNodalValues());
  FILEIO_OPENREAD(unit, fileName);
  const bool complete = FEMODEL::NumNodes < 1 || ReadNodalValues(values.get());
  FILEIO_CLOSEREAD(unit);
  if (!complete) {
    std::fill_n(displacements, FEDOF::NumEquations, 0.0);
    return true;
  }
  const float* source = values.get();
  const std::int32_t* map = FEDOF::NodeDofMap.get();
  const std::int64_t nodes = FEMODEL::NumNodes;
#pragma omp parallel for schedule(static)
  for (std::int64_t i = 0; i < 3 * nodes; ++i)
    if (map[i] > 0) displacements[map[i] - 1] = static_cast<double>(source[i]);
  return true;
}
