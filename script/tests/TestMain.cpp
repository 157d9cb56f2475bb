// Runs the script tests. The interpreter needs no Qt application object, but the binding runs command
// handlers and windows, so a QApplication exists for the whole run, on the offscreen platform unless
// the environment chose one.
#include <gtest/gtest.h>

#include <QApplication>

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
  }
  QApplication App(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
