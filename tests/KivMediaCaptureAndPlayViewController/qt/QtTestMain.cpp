#include <gtest/gtest.h>

#include <QApplication>

// Qt widgets need an application object before any test makes one; tests draw offscreen unless the
// environment names another platform.
int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  testing::InitGoogleTest(&argc, argv);
  QApplication application(argc, argv);
  return RUN_ALL_TESTS();
}
