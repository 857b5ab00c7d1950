// Open libraries behind the maths boundary, dense operations: MUMPS's matrix products and
// triangular solves. The program's own names stand before those of the libraries, so that they come
// here and go to OpenBLAS in parts, on the program's team.
//
// OpenBLAS's own threads wait for each other by giving their processors away again and again. Where
// other programs take them, each wait costs a slice of time: ten times the work of a factorisation.
// The team's threads sleep, and a part that none of them has come to take is left to who is there.
#include "platform/maths/open_dense.hpp"

#include <omp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "platform/memory.hpp"
#include "platform/threads.hpp"
#include "platform/watch.hpp"

extern "C" {
void openblas_set_num_threads(int count);
int openblas_get_num_threads(void);
void blas_thread_shutdown_(void);
void* blas_memory_alloc(int purpose);
void blas_memory_free(void* buffer);
void cblas_sgemm(int order, int transA, int transB, int m, int n, int k, float alpha,
                 const float* a, int lda, const float* b, int ldb, float beta, float* c, int ldc);
void cblas_strsm(int order, int side, int uplo, int transA, int diag, int m, int n, float alpha,
                 const float* a, int lda, float* b, int ldb);
}

namespace {

// Multiplications from which a team gains: some 40 microseconds on one thread.
constexpr double SmallestTeamwork = 4e6;

constexpr std::ptrdiff_t PartsPerThread = 2;
constexpr std::ptrdiff_t PartMultiple = 32;  // rows or columns, for whole registers and tiles

// OpenBLAS takes address space of this size for each thread's work and fills what it needs of it.
constexpr std::int64_t BlasBuffer = std::int64_t{1} << 27;
constexpr int BufferForThread = 2;

// Values of the C interface.
constexpr int ColumnsFirst = 102;
constexpr int Plain = 111;
constexpr int Transposed = 112;
constexpr int Upper = 121;
constexpr int Lower = 122;
constexpr int GeneralDiagonal = 131;
constexpr int UnitDiagonal = 132;
constexpr int Left = 141;
constexpr int Right = 142;

bool IsLetter(const char* given, char upper) { return *given == upper || *given == upper + 32; }

int Transposition(const char* trans) { return IsLetter(trans, 'N') ? Plain : Transposed; }

bool ThreadsEnded = false;
int BuffersLeft = 0;  // by the threads that have ended

// Only with room for so many buffers: a thread that is still asking for its own would never hear
// of its end.
void EndThreads(int buffers) {
  if (ThreadsEnded || !PLATFORM_CANMAP(buffers * BlasBuffer)) return;
  const WATCH::What watched = PLATFORM_WATCH(WATCH::What::Return);
  BuffersLeft = openblas_get_num_threads() - 1;
  openblas_set_num_threads(1);  // first, since it would start them again
  blas_thread_shutdown_();
  PLATFORM_WATCH(watched);
  ThreadsEnded = true;
}

// Asks for the buffers of all threads at once, which OpenBLAS keeps from then on.
void FillBufferStore(int threads) {
  void* buffers[MostThreads] = {};
  for (int i = 0; i < threads; ++i) buffers[i] = blas_memory_alloc(BufferForThread);
  for (int i = 0; i < threads; ++i) blas_memory_free(buffers[i]);
}

// Calls `part` with first and number for shares of `size` rows or columns that don't depend on each
// other, `work` multiplications in all.
template <class Part>
void ShareOut(double work, int size, Part part) {
  const int team = omp_get_max_threads();
  if (team == 1 || work < SmallestTeamwork) return part(0, size);
  const std::ptrdiff_t parts = PartsPerThread * team;
  const std::ptrdiff_t width =
      ((size + parts - 1) / parts + PartMultiple - 1) / PartMultiple * PartMultiple;
#pragma omp parallel for schedule(dynamic, 1)
  for (std::ptrdiff_t first = 0; first < size; first += width)
    part(first, static_cast<int>(std::min(width, size - first)));
}

}  // namespace

void OPENDENSE_ENDTHREADS() {
  if (ThreadsEnded) return;
  const int others = openblas_get_num_threads() - 1;
  if (others > 0) EndThreads(others);
}

bool OPENDENSE_PREPARE() {
  static bool prepared = false;
  if (prepared) return true;
  EndThreads(1);
  const int team = std::min(omp_get_max_threads(), MostThreads);
  const int lacking = std::max(team - BuffersLeft, 1);
  if (!ThreadsEnded || !PLATFORM_CANMAP(lacking * BlasBuffer)) return false;
  const WATCH::What watched = PLATFORM_WATCH(WATCH::What::Return);
  FillBufferStore(team);
  PLATFORM_WATCH(watched);
  prepared = true;
  return true;
}

// C := alpha op(A) op(B) + beta C, shared out by the longer side of C.
extern "C" void sgemm_(const char* transA, const char* transB, const int* m, const int* n,
                       const int* k, const float* alpha, const float* a, const int* lda,
                       const float* b, const int* ldb, const float* beta, float* c,
                       const int* ldc) {
  const int opA = Transposition(transA), opB = Transposition(transB);
  const double work = static_cast<double>(*m) * *n * *k;
  const auto columns = [&](std::ptrdiff_t first, int count) {
    cblas_sgemm(ColumnsFirst, opA, opB, *m, count, *k, *alpha, a, *lda,
                b + first * (opB == Plain ? *ldb : 1), *ldb, *beta, c + first * *ldc, *ldc);
  };
  const auto rows = [&](std::ptrdiff_t first, int count) {
    cblas_sgemm(ColumnsFirst, opA, opB, count, *n, *k, *alpha,
                a + first * (opA == Plain ? 1 : *lda), *lda, b, *ldb, *beta, c + first, *ldc);
  };
  if (*n >= *m)
    ShareOut(work, *n, columns);
  else
    ShareOut(work, *m, rows);
}

// B := alpha inverse(op(A)) B by columns of B, or alpha B inverse(op(A)) by rows.
extern "C" void strsm_(const char* side, const char* uplo, const char* transA, const char* diag,
                       const int* m, const int* n, const float* alpha, const float* a,
                       const int* lda, float* b, const int* ldb) {
  const int triangle = IsLetter(uplo, 'U') ? Upper : Lower;
  const int op = Transposition(transA);
  const int diagonal = IsLetter(diag, 'U') ? UnitDiagonal : GeneralDiagonal;
  const auto columns = [&](std::ptrdiff_t first, int count) {
    cblas_strsm(ColumnsFirst, Left, triangle, op, diagonal, *m, count, *alpha, a, *lda,
                b + first * *ldb, *ldb);
  };
  const auto rows = [&](std::ptrdiff_t first, int count) {
    cblas_strsm(ColumnsFirst, Right, triangle, op, diagonal, count, *n, *alpha, a, *lda, b + first,
                *ldb);
  };
  const double square = 0.5 * *m * *n;
  if (IsLetter(side, 'L'))
    ShareOut(square * *m, *n, columns);
  else
    ShareOut(square * *n, *m, rows);
}
