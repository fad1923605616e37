#include <gtest/gtest.h>

#include <QApplication>

#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"

// Qt widgets need an application object, with the main queue on its thread, before any test makes one;
// tests draw offscreen unless the environment names another platform.
int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  testing::InitGoogleTest(&argc, argv);
  QApplication application(argc, argv);
  zu::installQtMainDispatcher();
  return RUN_ALL_TESTS();
}
