// Running programs from a test: what they print and how they end.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/test.h"

struct Outcome {
  int status = -1;
  std::string out, err;
  nlohmann::json doc() const { return nlohmann::json::parse(out, nullptr, false); }
};

inline std::string slurp(const std::string& path) {
  const Bytes bytes = readFile(path);
  return std::string(bytes.begin(), bytes.end());
}

// Runs a shell command line, stdout through a pipe and stderr through the
// file `errors`; the status is 128 + the signal for a program killed.
inline Outcome shellIn(const std::string& line, const std::string& errors) {
  Outcome result;
  FILE* pipe = popen((line + " 2>'" + errors + "'").c_str(), "r");
  if (pipe == nullptr) return result;
  char block[65536];
  size_t got;
  while ((got = std::fread(block, 1, sizeof block, pipe)) > 0) result.out.append(block, got);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.err = slurp(errors);
  return result;
}

// `program args...` as a command line (no quotes in any argument), with
// standard input from the file `input` when one is named.
inline std::string commandLine(const std::string& program, const std::vector<std::string>& args,
                               const std::string& input = "") {
  std::string line = "'" + program + "'";
  for (const std::string& arg : args) line += " '" + arg + "'";
  if (!input.empty()) line += " <'" + input + "'";
  return line;
}
