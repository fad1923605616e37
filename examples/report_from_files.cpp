// Builds an evidence report from media files, fingerprints every file and prints the report as the
// certification service receives it.
//
//   report_from_files [media files...]
//
// Each file is copied into the SDK's media folder (where the records expect their bytes) and becomes a file
// of the report, dated by its modification time. Without arguments the program makes two sample files.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "AnyCodable/JSONSerialization.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "ZuDate/ZuDate.hpp"

namespace fs = std::filesystem;

namespace {

zu::Date modificationDate(const fs::path& path) {
  const auto written = std::chrono::file_clock::to_sys(fs::last_write_time(path));
  return zu::Date::fromTimeIntervalSince1970(
      std::chrono::duration<double>(written.time_since_epoch()).count());
}

// A record for `path`, with the file's bytes copied to the record's place in the media folder.
kiv::KivFile addToMediaFolder(const fs::path& path) {
  std::string ext = path.extension().string();
  if (!ext.empty()) ext.erase(0, 1);
  kiv::KivFile file(path.stem().string(), ext, modificationDate(path));
  fs::copy_file(path, file.fileURL().path(), fs::copy_options::overwrite_existing);
  return file;
}

// Two small files named the way the capture screen names them, written straight into the media folder.
std::vector<kiv::KivFile> makeSampleFiles() {
  const zu::Date now = zu::Date::now();
  std::vector<kiv::KivFile> files;
  for (auto [offset, ext] : {std::pair{0.0, "jpg"}, std::pair{42.0, "mp4"}}) {
    const zu::Date taken = now.addingTimeInterval(offset);
    kiv::KivFile file(zu::stringWithLocalDateTimeForFileNames(taken), ext, taken);
    std::ofstream(file.fileURL().path(), std::ios::binary)
        << "sample " << ext << " taken " << zu::stringWithVerboseDateTime(taken) << "\n";
    files.push_back(file);
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  kiv::KivReport report("Evidence " + zu::stringWithAPIFormat(zu::Date::now(), zu::DateFormatterStyle::day));
  try {
    for (int i = 1; i < argc; ++i) report.files.push_back(addToMediaFolder(argv[i]));
  } catch (const fs::filesystem_error& error) {
    std::cerr << "report_from_files: " << error.what() << "\n";
    return 1;
  }
  if (report.files.empty()) report.files = makeSampleFiles();
  report.setMetadata(
      zu::AnyCodable::Dictionary{{"source", "report_from_files"}, {"files", report.files.size()}});

  const kiv::KivReport hashed = report.withCalculatedHash();
  const auto json = zu::JSONSerialization::data(hashed.dictionaryRepresentation());
  if (!json) {
    std::cerr << "report_from_files: " << json.error().localizedDescription() << "\n";
    return 1;
  }
  std::cerr << "Media folder: " << kiv::KivFile::kivDirectory().path() << "\n";
  std::cout.write(reinterpret_cast<const char*>(json->data()), static_cast<std::streamsize>(json->size()))
      << "\n";
  return 0;
}
