// Small files for tests: values packed as they lie on disk, whole files at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

// Set while a test has a directory of its own; the process that a stop is expected of inherits it.
inline constexpr const char* DirectoryVariable = "VK_TEST_DIRECTORY";

// True in the process that is started again for a statement expected to stop. It finds the files as
// the test left them before that statement, so whatever prepares files must not run twice.
inline bool InStoppingProcess() {
  static const bool inherited = std::getenv(DirectoryVariable) != nullptr;
  return inherited;
}

template <class T>
std::string Bytes(const T& value) {
  std::string text(sizeof value, '\0');
  std::memcpy(text.data(), &value, sizeof value);
  return text;
}

template <class T>
std::string Bytes(const std::vector<T>& values) {
  std::string text(values.size() * sizeof(T), '\0');
  if (!values.empty()) std::memcpy(text.data(), values.data(), text.size());
  return text;
}

// int32 count, then the rows.
template <class T>
std::string Table(const std::vector<T>& rows) {
  return Bytes(static_cast<std::int32_t>(rows.size())) + Bytes(rows);
}

inline void WriteFile(const std::string& name, const std::string& content) {
  if (InStoppingProcess()) return;
  std::ofstream file(name, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + name);
}

inline std::string ReadFile(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline bool Exists(const std::string& name) {
  return std::filesystem::exists(std::filesystem::symlink_status(name));
}

inline void Remove(const std::string& name) {
  if (!InStoppingProcess()) std::filesystem::remove_all(name);
}

// The file's last `bytes` bytes go.
inline void Shorten(const std::string& name, std::uintmax_t bytes) {
  if (InStoppingProcess()) return;
  std::filesystem::resize_file(name, std::filesystem::file_size(name) - bytes);
}

inline void MakeDirectory(const std::string& name) {
  if (!InStoppingProcess()) std::filesystem::create_directory(name);
}

inline void MakeLink(const std::string& target, const std::string& name) {
  if (!InStoppingProcess()) std::filesystem::create_symlink(target, name);
}

template <class T>
T ValueAt(const std::string& bytes, std::size_t offset) {
  if (offset + sizeof(T) > bytes.size()) throw std::out_of_range("file is shorter than expected");
  T value{};
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

template <class T>
std::vector<T> ValuesAt(const std::string& bytes, std::size_t offset, std::size_t count) {
  std::vector<T> values;
  for (std::size_t i = 0; i < count; ++i)
    values.push_back(ValueAt<T>(bytes, offset + i * sizeof(T)));
  return values;
}
