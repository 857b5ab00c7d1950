// The global state of all modules as it is when the program starts, so that tests run in any order.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>

#include "elements/response_arrays.hpp"
#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "model/fileio.hpp"
#include "platform/watch.hpp"
#include "run/driver.hpp"
#include "run/load_case_table.hpp"
#include "run/services/arrays.hpp"
#include "run/services/logger.hpp"
#include "run/services/vkcore.hpp"
#include "solver/sleblocks.hpp"
#include "solver/slepardisosolver.hpp"
#include "solver/slepccgsolver.hpp"
#include "solver/slesparse.hpp"
#include "solver/solversta.hpp"

inline void CloseQuietly(FileStream& stream) {
  if (stream.descriptor >= 0) STREAM_CLOSE(stream);
  stream = FileStream{};
}

inline void ResetServices() {
  CloseQuietly(LOGGER::Stream);
  CloseQuietly(FILEIO::ReadStream);
  CloseQuietly(FILEIO::WriteStream);
  FILEIO::UnsyncedFolders.clear();
  LOGGER::StopHint.clear();
  ARRAYS::LargestBytes = std::numeric_limits<std::int64_t>::max();
  ARRAYS::ArraysLeft = -1;
  WATCH::LookNanoseconds = 1'000'000'000;
  WATCH::MostLooks = 30;
  VKCORE::RunOptions = VKCORE::RunOptionValues{};
  VKCORE::NumThreads = 1;
  VKCORE::PatternChanged = VKCORE::MatStateEnabled = false;
  VKCORE::MatStateMissing = VKCORE::NoNodalScalars = true;
  VKCORE::LCaseId = VKCORE::LoadCaseKind = 0;
  VKCORE::SolveQuality = VKCORE::TcBlendFactor = 0.0f;
  for (double& sum : VKCORE::AppliedLoadSum) sum = 0.0;
}

inline void ResetModel() {
  FEMODEL::NumMaterials = FEMODEL::NumNodes = FEMODEL::NumNodeFlags = FEMODEL::NumNodeRows = 0;
  FEMODEL::NumTp = FEMODEL::NumElements = 0;
  FEMODEL::NumConn40 = FEMODEL::NumConn60 = FEMODEL::NumConn41 = 0;
  FEMODEL::Materials.reset();
  FEMODEL::MaterialStiffness.reset();
  FEMODEL::NodeCoords.reset();
  FEMODEL::NodeFlags.reset();
  FEMODEL::NodeTpIndex.reset();
  FEMODEL::NodeTpFactor.reset();
  FEMODEL::Elements.reset();
  FEMODEL::ElementFlags.reset();
  FEMODEL::Conn40.reset();
  FEMODEL::Conn60.reset();
  FEMODEL::Conn41.reset();
}

inline void ResetNumbering() {
  FEDOF::NumNodalConstraints = FEDOF::NumEquations = FEDOF::LastPrescribingRow = 0;
  FEDOF::NodalConstraints.reset();
  FEDOF::NodeDofState.reset();
  FEDOF::NodeDofMap.reset();
  FEDOF::Displacements.reset();
}

inline void ResetLoadCase() {
  FELOADCASE::PreviousPattern = 0;
  FELOADCASE::NumNodalForces2 = FELOADCASE::NumNodalForces3 = FELOADCASE::NumSupports = 0;
  FELOADCASE::NodalForces2.reset();
  FELOADCASE::NodalForces3.reset();
  FELOADCASE::SupportList.reset();
  FELOADCASE::NodalScalars.reset();
  FELOADCASE::ElementState.reset();
}

inline void ResetSystem() {
  SOLVERSTA_FREEADDRESSES();
  SOLVERSTA_RELEASE();
  SOLVERSTA::IMode = SOLVERSTA::ModeAutomatic;
  SOLVERSTA::IterativeLimit = 2147000000;
  SOLVERSTA::FactorisedLimit = 500000000;
  SOLVERSTA::NumEquations = SOLVERSTA::MaxBW = 0;
  SOLVERSTA::NumEntries = 0;
  SOLVERSTA::UseIm4 = true;
  SOLVERSTA::SolverReady = false;
  SOLVERSTA::pR4.reset();
  SOLVERSTA::pC4.reset();
  SOLVERSTA::pR8.reset();
  SOLVERSTA::pC8.reset();
  SOLVERSTA::SysMatrix.reset();
  SOLVERSTA::SysMatrixSP.reset();
  SOLVERSTA::SysForces.reset();
  SOLVERSTA::SysRhs.reset();
  SOLVERSTA::SysScale.reset();
}

inline void ResetBlocks() {
  SLEBLOCKS_RELEASE();
  SLEBLOCKS::NumEquations = SLEBLOCKS::NumRows = SLEBLOCKS::NumBlocks = SLEBLOCKS::NumChunks = 0;
  SLEBLOCKS::Upper = SLEBLOCKS::Triangle{};
  SLEBLOCKS::Lower = SLEBLOCKS::Triangle{};
  SLEBLOCKS::LowerPlace.reset();
  SLEBLOCKS::Diagonal.reset();
  SLEBLOCKS::Unknown.reset();
  SLEBLOCKS::Chunks.reset();
  SLEBLOCKS::HoldsMatrix = false;
}

// Behind ResetSystem, which releases a factor.
inline void ResetSolvers() {
  SLEPARDISOSOLVER::PardisoError = 0;
  SLEPARDISOSOLVER::PardisoErrorText.assign(SLEPARDISOSOLVER::ErrorTextLength, ' ');
  SLEPARDISOSOLVER::PardisoFactorHeld = false;
  std::fill(std::begin(SLEPARDISOSOLVER::pt), std::end(SLEPARDISOSOLVER::pt), nullptr);
  std::fill(std::begin(SLEPARDISOSOLVER::iparm), std::end(SLEPARDISOSOLVER::iparm), 0);
  std::fill(std::begin(SLEPARDISOSOLVER::iparm8), std::end(SLEPARDISOSOLVER::iparm8), 0);
  SLEPCCGSOLVER::PcgMode = SLEPCCGSOLVER::PcgPlain;
  SLEPCCGSOLVER::PcgMaxIter = SLEPCCGSOLVER::ICount = 0;
  SLEPCCGSOLVER::PcgQuality = 0.0f;
  SLESPARSE_RELEASE();
  SLESPARSE::Spills.reset();
  SLESPARSE::SpillCapacity = 0;
}

inline void ResetResponse() {
  RESPONSE::NumTc = RESPONSE::NumNodes = 0;
  RESPONSE::TcCounts.reset();
  RESPONSE::TcValues.reset();
  RESPONSE::AmsCounts.reset();
  RESPONSE::AmsValues.reset();
  RESPONSE::AmsSigns.reset();
  RESPONSE::DisValues.reset();
}

inline void ResetRun() {
  RUN::RunStartTicks = RUN::LoadCaseStartTicks = 0;
  RUN::NumLoadCases = RUN::NumLoadCaseRecords = 0;
  RUN::LoadCases.reset();
  RUN::LoadCaseFlags.reset();
  RUN::LoadCaseValues.reset();
}

inline void ResetModules() {
  ResetServices();
  ResetModel();
  ResetNumbering();
  ResetLoadCase();
  ResetSystem();
  ResetBlocks();
  ResetSolvers();
  ResetResponse();
  ResetRun();
}
