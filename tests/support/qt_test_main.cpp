// gtest main for the Qt layers: a QCoreApplication exists for the whole run, so that
// event loops, timers, queued calls and QSignalSpy work inside tests.
#include <gtest/gtest.h>

#include <QCoreApplication>

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
