// Module SLEBLOCKS: the scaled matrix A = L + I + U once more, in the layout that the Gauss-Seidel
// preconditioned iteration streams through. Both strict triangles are held in blocks of 3 by 3, so
// that every pass gathers and none scatters.
//
// Block rows are groups of up to three successive equations with one column structure, a node's as
// a rule; a smaller group is padded with unknowns of unit rows that stay 0. Rows stand in level
// order: the level of a row is one more than the highest among its neighbours with lower equations,
// so rows of one level don't depend on each other in either sweep. Runs of chunks that may be
// worked on at the same time form a stage; stages follow each other, upwards in the forward sweep,
// downwards in the backward sweep.
//
// Built for a matrix by SLEBLOCKS_BUILD; the structure is kept until SLEBLOCKS_RELEASE, which the
// next constraint pattern calls. Places of rows, chunks and blocks count from 0.
#pragma once

#include <cstdint>

#include "run/services/arrays.hpp"

namespace SLEBLOCKS {

inline constexpr int Width = 3;                  // unknowns of a block row
inline constexpr int BlockSize = Width * Width;  // values of a block, column by column

// One strict triangle by block rows; the columns of a row ascend in equation order.
struct Triangle {
  Array<std::int32_t> start;   // [NumRows + 1] place of each row's first block
  Array<std::int32_t> column;  // [NumBlocks] block row that the block multiplies
  Array<double> values;        // [NumBlocks][9], and one more
};

// Rows [first, last), worked on by one thread in one go, and the stage they belong to: the places
// of its first chunk and behind its last.
struct Chunk {
  std::int32_t first, last;
  std::int32_t stageFirst, stageLast;
};

inline std::int32_t NumRows = 0;
inline std::int32_t NumBlocks = 0;  // of one triangle
inline Triangle Upper;
inline Triangle Lower;
inline Array<std::int32_t> LowerPlace;  // [NumBlocks] place in Lower of each block of Upper
inline Array<double> Diagonal;  // [NumRows][3] entries (1,2), (1,3), (2,3) of the diagonal block
inline std::int32_t NumEquations = 0;
inline Array<std::int32_t> Unknown;  // [equation] its place among the 3 x NumRows unknowns

inline std::int32_t NumChunks = 0;
inline Array<Chunk> Chunks;  // ascending rows

inline bool HoldsMatrix = false;  // the values are those of the present SysMatrix

}  // namespace SLEBLOCKS

// Takes over the matrix of `n` equations stored as upper triangle pR, pC, `matrix` with a unit
// diagonal, its structure only where none is held. Leaves HoldsMatrix false, and nothing allocated,
// where the copy would not pay or can't be had: memory that is short, a structure that blocks fit
// badly, a diagonal that is not 1.
void SLEBLOCKS_BUILD(std::int32_t n, const std::int32_t* pR, const std::int32_t* pC,
                     const double* matrix);

// Frees everything.
void SLEBLOCKS_RELEASE();

// Bytes that the copy of a system of that many block rows and blocks a triangle takes.
constexpr std::int64_t SLEBLOCKS_BYTES(std::int64_t rows, std::int64_t blocks) {
  constexpr std::int64_t perBlock = 2 * (SLEBLOCKS::BlockSize * 8 + 4) + 4;
  constexpr std::int64_t perRow = 2 * 4 + SLEBLOCKS::Width * (8 + 4);
  return perBlock * blocks + perRow * rows;
}
