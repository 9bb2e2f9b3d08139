// What the tests share to judge a program from outside: whole files as strings, counts of
// a text, and waiting for something to become true.
#pragma once

#include <time.h>

#include <chrono>
#include <fstream>
#include <functional>
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

inline size_t count_of(const std::string &hay, const std::string &needle) {
  size_t n = 0;
  for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) n++;
  return n;
}

// Polls every nap_ms until done or the time is up; done's last answer.
inline bool wait_for(const std::function<bool()> &done, double seconds, long nap_ms = 20) {
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (struct timespec nap = {0, nap_ms * 1000 * 1000}; !done(); nanosleep(&nap, nullptr))
    if (std::chrono::steady_clock::now() >= end) return done();
  return true;
}
