// A direct solver that fails where it is told to, in front of the real one. The linker leads the
// program's calls of `pardiso` and `pardiso_64` here (--wrap).
// FAIL_PHASE: the phase. FAIL_CODE: the code it gives back. FAIL_FROM, FAIL_TO: the first and last
// call of that phase that fails, counted from 1; all by default. A call that fails leaves the
// solution as it is; a release that fails has released all the same.
#include <climits>
#include <cstdlib>

extern "C" {

void __real_pardiso(void*, const int*, const int*, const int*, const int*, const int*, const void*,
                    const int*, const int*, int*, const int*, int*, const int*, void*, void*, int*);
void __real_pardiso_64(void*, const long long*, const long long*, const long long*,
                       const long long*, const long long*, const void*, const long long*,
                       const long long*, long long*, const long long*, long long*, const long long*,
                       void*, void*, long long*);
void __wrap_pardiso(void*, const int*, const int*, const int*, const int*, const int*, const void*,
                    const int*, const int*, int*, const int*, int*, const int*, void*, void*, int*);
void __wrap_pardiso_64(void*, const long long*, const long long*, const long long*,
                       const long long*, const long long*, const void*, const long long*,
                       const long long*, long long*, const long long*, long long*, const long long*,
                       void*, void*, long long*);

}  // extern "C"

namespace {

constexpr long long PhaseRelease = -1;

long long Told(const char* name, long long otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::atoll(text) : otherwise;
}

bool Fails(long long phase) {
  static long long calls = 0;
  if (phase != Told("FAIL_PHASE", 0)) return false;
  ++calls;
  return calls >= Told("FAIL_FROM", 1) && calls <= Told("FAIL_TO", LLONG_MAX);
}

}  // namespace

void __wrap_pardiso(void* pt, const int* maxfct, const int* mnum, const int* mtype,
                    const int* phase, const int* n, const void* a, const int* ia, const int* ja,
                    int* perm, const int* nrhs, int* iparm, const int* msglvl, void* b, void* x,
                    int* error) {
  const bool fails = Fails(*phase);
  if (!fails || *phase == PhaseRelease)
    __real_pardiso(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, msglvl, b, x,
                   error);
  if (fails) *error = static_cast<int>(Told("FAIL_CODE", 0));
}

void __wrap_pardiso_64(void* pt, const long long* maxfct, const long long* mnum,
                       const long long* mtype, const long long* phase, const long long* n,
                       const void* a, const long long* ia, const long long* ja, long long* perm,
                       const long long* nrhs, long long* iparm, const long long* msglvl, void* b,
                       void* x, long long* error) {
  const bool fails = Fails(*phase);
  if (!fails || *phase == PhaseRelease)
    __real_pardiso_64(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, msglvl, b, x,
                      error);
  if (fails) *error = Told("FAIL_CODE", 0);
}
