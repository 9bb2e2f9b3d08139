// Whole files as strings, for tests that judge what a program left on disk.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

// The file's bytes, or "<missing>" when it does not open.
inline std::string slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<missing>";
}

// Replaces the file with text; true when all of it was written.
inline bool spill(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  return out.write(text.data(), (std::streamsize)text.size()).flush().good();
}
