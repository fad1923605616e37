// kiv-capture: the capture screen as a program. It opens on the camera (or the synthetic one) to take one
// photo or video, or on a file to review it; on "save" it prints the file's path and, with --report, adds
// the file to that report in the SDK's store the way a host application does, with the device's signed
// statement about it.
//
//   kiv-capture [--synthetic] [--photo] [--directory DIR] [--report REPORT] [--verbose]
//   kiv-capture --review FILE [--autoplay] [--directory DIR] [--report REPORT]
//
// Exit status: 0 when a file was saved, 1 when the screen closed without one or failed, 2 for bad usage.
#include <CLI/CLI.hpp>

#include <QApplication>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewControllerDelegate.hpp"
#include "KivMediaCaptureAndPlayViewController/gstreamer/GstCaptureDevice.hpp"
#include "KivMediaCaptureAndPlayViewController/gstreamer/GstMediaPlayer.hpp"
#include "KivMediaCaptureAndPlayViewController/qt/KivMediaCaptureAndPlayWidget.hpp"
#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "ZuLogger/ZuLogger.hpp"

namespace {

using Screen = zu::KivMediaCaptureAndPlayViewController;

struct Options {
  bool synthetic = false;
  bool photo = false;
  std::string directory;
  std::optional<std::string> report;
  /// Made absolute once parsed.
  std::optional<std::string> review;
  bool autoplay = false;
  bool verbose = false;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
  CLI::App app("kiv-capture: take a photo or a video as evidence, or review one");
  app.add_flag("--synthetic", options.synthetic, "Use the synthetic camera (test picture, clock and tone)");
  app.add_flag("--photo", options.photo, "Open in photo mode (default: video)");
  app.add_option("--directory", options.directory,
                 "Folder for new captures (default: the SDK's media folder)");
  app.add_option("--report", options.report, "Add the saved file to this report (id, slug or name)");
  auto* review = app.add_option("--review", options.review, "Review this photo or video instead")
                     ->check(CLI::ExistingFile);
  app.add_flag("--autoplay", options.autoplay, "Play the video under review at once")->needs(review);
  app.add_flag("--verbose", options.verbose, "Log what the SDK does");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;  // --help, or bad usage
  }
  return std::nullopt;
}

/// The host: keeps the file on "save", ends the program when the screen closes.
class Host final : public zu::KivMediaCaptureAndPlayViewControllerDelegate {
 public:
  explicit Host(const Options& options) : options_(options) {}

  /// The exit status: 1 until a file is saved (also when the window is closed from outside the screen).
  int status() const { return status_; }

  bool mediaCaptureAndPlayViewControllerCanDeleteFileAt(Screen&, const zu::URL& fileURL) override {
    // New captures may go again; the file the user brought for review stays.
    return !options_.review || *options_.review != fileURL.path();
  }
  void mediaCaptureAndPlayViewControllerDidDeleteFileAt(Screen&, const zu::URL& fileURL) override {
    std::cerr << "Deleted " << fileURL.path() << "\n";
  }
  void mediaCaptureAndPlayViewControllerDidDismissWith(Screen&, Screen::DismissReason reason,
                                                       const std::optional<zu::URL>& fileURL) override {
    if (reason != Screen::DismissReason::save || !fileURL) {
      finish(1);
      return;
    }
    finish(save(*fileURL) ? 0 : 1);
  }
  void mediaCaptureAndPlayViewControllerDidFailWith(Screen&, const zu::SetupError& error) override {
    std::cerr << "kiv-capture: " << error.errorDescription() << "\n";
    if (!options_.synthetic) std::cerr << "kiv-capture: --synthetic uses a synthetic camera instead\n";
    finish(1);
  }

 private:
  bool save(const zu::URL& fileURL) const {
    if (!options_.report) {
      std::cout << fileURL.path() << std::endl;
      return true;
    }
    const auto added = kiv::KivProvenance::addSignedMediaFileToStoredReport(fileURL, *options_.report);
    if (!added) {
      std::cerr << "kiv-capture: " << fileURL.path()
                << " could not be added to the report: " << added.error().localizedDescription() << "\n";
      return false;
    }
    std::cerr << (added->reportCreated ? "Made report \"" : "Added to report \"") << added->report.name
              << "\" (" << added->report.id->uuidString() << "), with a signed statement\n";
    std::cout << added->file.fileURL().path() << std::endl;
    return true;
  }

  void finish(int status) {
    status_ = status;
    QCoreApplication::quit();
  }

  const Options& options_;
  int status_ = 1;
};

int run(int argc, char** argv, const Options& options) {
  if (options.verbose) zu::ZuLogger::setLogLevel(zu::ZuLogger::LogLevel::debug);
  const std::string directory =
      options.directory.empty() ? kiv::KivFile::kivDirectory().path() : options.directory;
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) {
    std::cerr << "kiv-capture: cannot make " << directory << ": " << error.message() << "\n";
    return 1;
  }

  QApplication application(argc, argv);
  Host host(options);
  auto camera =
      std::make_shared<zu::GstCaptureDevice>(zu::GstCaptureDevice::Settings{.synthetic = options.synthetic});
  std::optional<zu::URL> review;
  if (options.review) review = zu::URL::fileURLWithPath(*options.review);
  auto screen =
      std::make_unique<Screen>(host, zu::URL::fileURLWithPath(directory, true), review, options.autoplay,
                               zu::qtCapturePlatform(camera, std::make_shared<zu::GstMediaPlayer>()));
  if (options.photo) screen->defaultMediaType = Screen::MediaType::photo;
  {
    // The screen, camera and player go before the application object.
    zu::KivMediaCaptureAndPlayWidget widget(std::move(screen));
    widget.presentFullScreen();
    static_cast<void>(QApplication::exec());
  }
  return host.status();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    if (const auto usage = parse(argc, argv, options)) return *usage;
    if (options.review) options.review = std::filesystem::absolute(*options.review).string();
    return run(argc, argv, options);
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "kiv-capture: %s\n", error.what()));
    return 1;
  }
}
