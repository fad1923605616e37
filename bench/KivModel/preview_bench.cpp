// Measures preview images through KivModel::getPreviewImage, in a scratch data folder.
//
//   preview_bench photo <jpeg> <runs>   first previews of one photo under <runs> names (each decodes, at the
//                                       preview size), the full size a host asks a preview for, then the
//                                       same bytes through a GStreamer pipeline, for the choice of decoder
//   preview_bench peak <photo>          one photo preview, then the process's peak memory
//   preview_bench video <mp4> <runs>    first previews of one video under <runs> names: request to frame
//   preview_bench list <folder>         a preview of every photo in <folder>, in order: total time, the
//                                       resident memory afterwards, the cache holding them all, and the
//                                       previews' pixels
//
// Prints "key=value" lines; times in milliseconds, the best of the runs, both wall-clock and the CPU of
// every thread of the process (the figure to compare on a busy machine); memory in KiB.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <iostream>
#include <string>
#include <vector>

#include "KivSDK/Model/KivModel.hpp"
#include "ProcessFigures.hpp"
#include "ZuFoundation/internal/Posix.hpp"
#include "ZuGStreamer/FirstPicture.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;
using benchfigures::Clock;
using benchfigures::peakResidentKiB;
using benchfigures::residentKiB;

/// The best wall and CPU times of `runs` runs of `work(run)`, each timed from its start.
struct Best {
  double wallMs = 1e300;
  double cpuMs = 1e300;

  template <class Work>
  Best(int runs, const Work& work) {
    for (int run = 0; run < runs; ++run) {
      const auto start = Clock::now();
      const double cpuStart = benchfigures::cpuSeconds();
      work(run);
      cpuMs = std::min(cpuMs, (benchfigures::cpuSeconds() - cpuStart) * 1e3);
      wallMs = std::min(wallMs, benchfigures::since(start) * 1e3);
    }
  }
  void print(const std::string& name) const {
    std::cout << name << "_wall_ms=" << wallMs << "\n" << name << "_cpu_ms=" << cpuMs << "\n";
  }
};

/// The file copied into the media folder as `name`, as a record.
kiv::KivFile placed(const fs::path& source, const std::string& name) {
  const std::string ext = source.extension().string().substr(1);
  kiv::KivFile file(name, ext, zu::Date(0));
  fs::copy_file(source, file.fileURL().path(), fs::copy_options::overwrite_existing);
  return file;
}

/// A preview of `file`, waiting for a video's answer.
zu::Image preview(const kiv::KivFile& file) {
  std::promise<std::optional<zu::Image>> answered;
  auto picture = kiv::KivModel::getPreviewImage(
      file, [&](const std::optional<zu::Image>& image) { answered.set_value(image); });
  auto answer = answered.get_future().get();
  if (picture) return *picture;
  if (answer) return *answer;
  throw std::runtime_error("no preview of " + file.name);
}

/// First previews of `source` under `runs` fresh names; the last one.
zu::Image firstPreviews(const fs::path& source, int runs) {
  std::vector<kiv::KivFile> files;
  files.reserve(runs);
  for (int run = 0; run < runs; ++run) files.push_back(placed(source, "copy-" + std::to_string(run)));
  zu::Image last;
  Best(runs, [&](int run) { last = preview(files[run]); }).print("sdk");
  std::cout << "preview_width=" << last.width() << "\npreview_height=" << last.height() << "\n";
  return last;
}

void photo(const fs::path& source, int runs) {
  const zu::Image shown = firstPreviews(source, runs);
  Best(runs, [&](int /*run*/) {
    if (!shown.atFullSize()) throw std::runtime_error("no full size of " + source.string());
  }).print("full");
  const auto bytes = zu::detail::readWholeFile(source.string());
  Best(runs, [&](int /*run*/) {
    if (!zu::detail::firstPictureOfData(*bytes)) throw std::runtime_error("GStreamer decoded nothing");
  }).print("gstreamer");
}

void list(const fs::path& folder) {
  std::vector<fs::path> photos;
  for (const auto& entry : fs::directory_iterator(folder)) photos.push_back(entry.path());
  std::sort(photos.begin(), photos.end());
  std::vector<kiv::KivFile> files;
  files.reserve(photos.size());
  for (const auto& photo : photos) files.push_back(placed(photo, photo.stem().string()));
  const long before = residentKiB();
  std::size_t pixelBytes = 0;
  Best(1, [&](int /*run*/) {
    for (const auto& file : files) pixelBytes += preview(file).rgba().size();
  }).print("total");
  std::cout << "photos=" << files.size() << "\nresident_before_kib=" << before
            << "\nresident_after_kib=" << residentKiB() << "\npixels_kib=" << pixelBytes / 1024 << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: preview_bench photo|peak|video|list <file or folder> [runs]\n";
    return 2;
  }
  try {
    const std::vector<std::string> args(argv + 1, argv + argc);
    const testing_support::ScopedApplicationData data;
    const int runs = args.size() > 2 ? std::stoi(args[2]) : 5;
    if (args[0] == "photo") {
      photo(args[1], runs);
    } else if (args[0] == "peak") {
      preview(placed(args[1], "photo"));
      std::cout << "peak_kib=" << peakResidentKiB() << "\n";
    } else if (args[0] == "video") {
      firstPreviews(args[1], runs);
    } else if (args[0] == "list") {
      list(args[1]);
    } else {
      return 2;
    }
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
  return 0;
}
