#pragma once

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

namespace testing_support {

/// The text of a PDF file as the `pdftotext` tool reads it (its layout kept), or its error message.
inline std::string pdfText(const std::filesystem::path& file) {
  std::string output;
  std::unique_ptr<FILE, decltype(&pclose)> pipe(
      popen(("pdftotext -layout '" + file.string() + "' - 2>&1").c_str(), "r"), pclose);
  char block[4096];
  while (std::size_t got = std::fread(block, 1, sizeof block, pipe.get())) output.append(block, got);
  return output;
}

}  // namespace testing_support
