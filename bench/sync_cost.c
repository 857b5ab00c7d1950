// For sync_cost.py: changes what the process it is loaded into syncs.
// SYNC_FOLDERS=never: no folder; each: the working directory after every renaming too.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int is_chosen(const char* when) {
  const char* text = getenv("SYNC_FOLDERS");
  return text && strcmp(text, when) == 0;
}

int fsync(int file) {
  int (*real)(int) = dlsym(RTLD_NEXT, "fsync");
  struct stat info;
  if (is_chosen("never") && fstat(file, &info) == 0 && S_ISDIR(info.st_mode)) return 0;
  return real(file);
}

int rename(const char* from, const char* to) {
  int (*real)(const char*, const char*) = dlsym(RTLD_NEXT, "rename");
  int (*sync)(int) = dlsym(RTLD_NEXT, "fsync");
  const int status = real(from, to);
  if (status != 0 || !is_chosen("each")) return status;
  const int folder = open(".", O_RDONLY | O_DIRECTORY);
  if (folder < 0 || sync(folder) != 0) abort();
  close(folder);
  return status;
}
