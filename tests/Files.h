// The contents of files, and the output of commands.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

/// The contents of a file. The test fails if the file cannot be read.
inline std::string contents(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

/// The output of a command and its exit status, which is -1 if it did not end by itself.
struct CommandResult {
  int status = -1;
  std::string text;
};

/// Runs `command` in a shell.
inline CommandResult runShell(const std::string& command) {
  CommandResult result;
  std::FILE* const pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  for (int c = std::getc(pipe); c != EOF; c = std::getc(pipe)) {
    result.text += static_cast<char>(c);
  }
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}
