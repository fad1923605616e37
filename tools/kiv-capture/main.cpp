// kiv-capture: the capture screen as a program. It opens on the camera (or the synthetic one) to take one
// photo or video, or on a file to review it; on "save" it prints the file's path and, with --report, adds
// the file to that report of the store it shares with kiv, the way a host application does, with the
// device's signed statement about it.
//
//   kiv-capture [--synthetic] [--photo] [--take] [--report REPORT] [--data DIR] [--directory DIR] [--verbose]
//   kiv-capture --review FILE [--autoplay] [--data DIR]
//
// Exit status: 0 when a file was saved or the screen was closed without one (a line says nothing was saved),
// 1 when saving failed, the report is unknown or, with --take, the camera cannot be used; 2 for bad usage.
#include <fcntl.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <QAbstractButton>
#include <QApplication>
#include <QSocketNotifier>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "DataFolder.hpp"
#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewControllerDelegate.hpp"
#include "KivMediaCaptureAndPlayViewController/gstreamer/GstCaptureDevice.hpp"
#include "KivMediaCaptureAndPlayViewController/gstreamer/GstMediaPlayer.hpp"
#include "KivMediaCaptureAndPlayViewController/qt/KivMediaCaptureAndPlayWidget.hpp"
#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "ReportStore.hpp"
#include "ToolError.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuLogger/ZuLogger.hpp"

namespace {

using Screen = zu::KivMediaCaptureAndPlayViewController;
using kivcli::CommandError;
using kivcli::ReportStore;

struct Options {
  bool synthetic = false;
  bool photo = false;
  bool take = false;
  std::string directory;
  std::string data;
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
  auto* review = app.add_option("--review", options.review, "Review this photo or video instead")
                     ->check(CLI::ExistingFile);
  app.add_flag("--take", options.take,
               "Take one photo as soon as the camera is ready and save it, unattended")
      ->excludes(review);
  auto* report =
      app.add_option("--report", options.report,
                     "Add the saved file to this report: its id, a prefix of it, its slug or its name");
  review->excludes(report);
  app.add_option("--data", options.data,
                 "The application data folder, shared with kiv (default: kiv in the user's data folder)")
      ->envname("KIV_DATA_DIR");
  app.add_option("--directory", options.directory,
                 "Folder for new captures (default: Captures in the application data folder)");
  app.add_flag("--autoplay", options.autoplay, "Play the video under review at once")->needs(review);
  app.add_flag("--verbose", options.verbose, "Log what the SDK does");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kivcli::success : kivcli::usage;
  }
  return std::nullopt;
}

/// The report's id, checked before the screen opens: an unknown report ends the program with the store as it
/// was.
std::string reportId(const std::string& selector) {
  const ReportStore store = ReportStore::load();
  return store.find(selector).id.value().uuidString();
}

/// Adds the capture at `fileURL` to the report `id` names (moving it into the media folder), with the
/// device's statement about it; answers its new place.
zu::URL addToReport(const zu::URL& fileURL, const std::string& id) {
  const ReportStore store = ReportStore::load();
  kiv::KivReport report = store.find(id);
  const auto imported = kiv::KivProvenance::importSignedMediaFile(fileURL, report, store.reports(),
                                                                  {.move = true, .dateTaken = std::nullopt});
  if (!imported) {
    kivcli::fail(imported.error().localizedDescription() + "; the capture stays at " + fileURL.path());
  }
  report.files.push_back(imported->file);
  ReportStore::save(report.withCalculatedHash());
  std::cerr << "Added to report \"" << report.name << "\" (" << id << "), with a signed statement\n";
  return imported->file.fileURL();
}

/// The host: keeps the file on "save", shows a camera failure in the window, ends the program when the screen
/// closes.
class Host final : public zu::KivMediaCaptureAndPlayViewControllerDelegate {
 public:
  Host(const Options& options, std::optional<std::string> reportId)
      : options_(options), reportId_(std::move(reportId)) {}

  void setWidget(zu::KivMediaCaptureAndPlayWidget* widget) { widget_ = widget; }
  /// The exit status: `success` when nothing ended the program before the window was closed.
  int status() const { return status_.value_or(kivcli::success); }
  bool finished() const { return status_.has_value(); }

  bool mediaCaptureAndPlayViewControllerCanDeleteFileAt(Screen&, const zu::URL& fileURL) override {
    // New captures may go again; the file the user brought for review stays.
    return !options_.review || *options_.review != fileURL.path();
  }
  void mediaCaptureAndPlayViewControllerDidDeleteFileAt(Screen&, const zu::URL& fileURL) override {
    std::cerr << "Deleted " << fileURL.path() << "\n";
  }
  void mediaCaptureAndPlayViewControllerDidDismissWith(Screen&, Screen::DismissReason reason,
                                                       const std::optional<zu::URL>& fileURL) override {
    if (reason == Screen::DismissReason::save && fileURL) return finish(save(*fileURL));
    closedWithoutSaving();
  }
  void mediaCaptureAndPlayViewControllerDidFailWith(Screen&, const zu::SetupError& error) override {
    std::cerr << "kiv-capture: " << error.errorDescription() << "\n";
    if (!options_.synthetic) std::cerr << "kiv-capture: --synthetic uses a synthetic camera instead\n";
    if (options_.take) return finish(kivcli::failed);
    // The window stays, saying why, until the user closes it.
    if (widget_) widget_->showMessage(QString::fromStdString(error.errorDescription()));
  }

  /// The screen went without a file: closed by the user, the window system or a signal.
  void closedWithoutSaving() {
    if (finished()) return;
    std::cerr << "kiv-capture: closed; nothing was saved\n";
    finish(kivcli::success);
  }

 private:
  int save(const zu::URL& fileURL) const {
    try {
      std::cout << (reportId_ ? addToReport(fileURL, *reportId_) : fileURL).path() << std::endl;
      return kivcli::success;
    } catch (const CommandError& error) {
      std::cerr << "kiv-capture: " << error.what() << "\n";
      return error.exitCode();
    }
  }

  void finish(int status) {
    status_ = status;
    QCoreApplication::quit();
  }

  const Options& options_;
  const std::optional<std::string> reportId_;
  zu::KivMediaCaptureAndPlayWidget* widget_ = nullptr;
  std::optional<int> status_;
};

/// The write end of the pipe through which SIGINT and SIGTERM reach the event loop.
int gSignalPipe = -1;

/// Makes SIGINT (Ctrl+C in the terminal) and SIGTERM close the screen like its close button: a recording
/// under way ends cleanly instead of leaving a broken file.
void closeOnSignals(QObject& owner, Host& host) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
    return;  // then signals end the program as they would anyway
  gSignalPipe = ends[1];
  auto* notifier = new QSocketNotifier(ends[0], QSocketNotifier::Read, &owner);
  QObject::connect(notifier, &QSocketNotifier::activated, &owner, [&host] { host.closedWithoutSaving(); });
  struct sigaction action {};
  action.sa_handler = [](int) {
    const char byte = 0;
    static_cast<void>(::write(gSignalPipe, &byte, 1));
  };
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

/// Presses the shutter once the camera is ready, then confirms the photo: what --take does for the user.
void takeUnattended(zu::KivMediaCaptureAndPlayWidget& widget) {
  auto* timer = new QTimer(&widget);
  QObject::connect(timer, &QTimer::timeout, &widget, [&widget, shutterPressed = false]() mutable {
    const auto ready = [&](const char* name) {
      auto* button = widget.findChild<QAbstractButton*>(name);
      return button && button->isVisible() && button->isEnabled() ? button : nullptr;
    };
    if (auto* confirm = ready("confirmButton")) return confirm->click();
    if (auto* shutter = ready("mainControlButton"); shutter && !shutterPressed) {
      shutterPressed = true;
      shutter->click();
    }
  });
  timer->start(100);
}

std::string captureDirectory(const Options& options) {
  if (!options.directory.empty()) return options.directory;
  return zu::ZuFileManager::applicationDataDirectory() + "/Captures";
}

int run(int argc, char** argv, const Options& options, std::optional<std::string> report) {
  if (options.verbose) zu::ZuLogger::setLogLevel(zu::ZuLogger::LogLevel::debug);
  const std::string directory = captureDirectory(options);
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) kivcli::fail("cannot make " + directory + ": " + error.message());

  QApplication application(argc, argv);
  zu::installQtMainDispatcher();
  Host host(options, std::move(report));
  auto camera =
      std::make_shared<zu::GstCaptureDevice>(zu::GstCaptureDevice::Settings{.synthetic = options.synthetic});
  std::optional<zu::URL> review;
  if (options.review) review = zu::URL::fileURLWithPath(*options.review);
  auto screen =
      std::make_unique<Screen>(host, zu::URL::fileURLWithPath(directory, true), review, options.autoplay,
                               zu::qtCapturePlatform(camera, std::make_shared<zu::GstMediaPlayer>()));
  if (options.photo || options.take) screen->defaultMediaType = Screen::MediaType::photo;
  {
    // The screen, camera and player go before the application object.
    zu::KivMediaCaptureAndPlayWidget widget(std::move(screen));
    host.setWidget(&widget);
    closeOnSignals(widget, host);
    if (options.take) takeUnattended(widget);
    widget.presentFullScreen();
    static_cast<void>(QApplication::exec());
    host.setWidget(nullptr);
  }
  if (!host.finished()) host.closedWithoutSaving();  // the window was closed from outside the screen
  return host.status();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    if (const auto usage = parse(argc, argv, options)) return *usage;
    kivcli::useDataFolder(options.data);
    if (options.review) options.review = std::filesystem::absolute(*options.review).string();
    std::optional<std::string> report;
    if (options.report) report = reportId(*options.report);
    return run(argc, argv, options, std::move(report));
  } catch (const CommandError& error) {
    std::cerr << "kiv-capture: " << error.what() << "\n";
    return error.exitCode();
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "kiv-capture: %s\n", error.what()));
    return kivcli::failed;
  }
}
