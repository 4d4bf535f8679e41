#include "fuzz/text_file.h"

#include <cstdio>

namespace {

std::string_view file_text;
std::FILE *open_file = nullptr;

}  // namespace

void set_file_text(std::string_view text) {
  file_text = text;
}

// The linker hands the C library's names over to these.
extern "C" {
std::FILE *__real_fopen(const char *path, const char *mode);
std::FILE *__wrap_fopen(const char *path, const char *mode);
std::FILE *__wrap_fopen64(const char *path, const char *mode);
int __wrap_fclose(std::FILE *file);
int __real_fclose(std::FILE *file);

std::FILE *__wrap_fopen(const char *path, const char *mode) {
  // The fuzzer keeps what it found.
  if (mode[0] == 'w') return __real_fopen(path, mode);
  // fmemopen takes no empty text.
  open_file =
      file_text.empty() ? std::tmpfile() : fmemopen(const_cast<char *>(file_text.data()), file_text.size(), "r");
  return open_file;
}

std::FILE *__wrap_fopen64(const char *path, const char *mode) {
  return __wrap_fopen(path, mode);
}

int __wrap_fclose(std::FILE *file) {
  if (file == open_file) open_file = nullptr;
  return __real_fclose(file);
}
}

bool close_left_file() {
  if (open_file == nullptr) return false;
  (void)__real_fclose(open_file);
  open_file = nullptr;
  return true;
}
