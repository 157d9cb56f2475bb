// The console message ring between printing threads and the main thread.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "app/base/ConsoleCore.h"

TEST(ConsoleRing, KeepsTheFirstThousandMessagesInOrderAndDropsTheRest) {
  ConsoleClearRing();
  for (int i = 0; i < 1001; ++i) {
    int r = ConsolePrint(QString::number(i));
    EXPECT_EQ(r, i < 1000 ? 0 : -1) << i;
  }
  CONSOLE_MSG Msg;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(ConsoleTakeMessage(&Msg));
    EXPECT_EQ(QString::fromUtf8(Msg.acText), QString::number(i));
  }
  EXPECT_FALSE(ConsoleTakeMessage(&Msg));
  EXPECT_EQ(ConsolePrint("again"), 0);  // a drained ring takes messages again
  ASSERT_TRUE(ConsoleTakeMessage(&Msg));
  EXPECT_STREQ(Msg.acText, "again");
}

TEST(ConsoleRing, CutsLongTextAndDropsEmptyText) {
  ConsoleClearRing();
  EXPECT_EQ(ConsolePrint(QString(1500, 'x')), 0);
  EXPECT_EQ(ConsolePrint(""), -1);
  CONSOLE_MSG Msg;
  ASSERT_TRUE(ConsoleTakeMessage(&Msg));
  EXPECT_EQ(strlen(Msg.acText), 1000u);
  EXPECT_EQ(Msg.NewLine, 1);
  EXPECT_FALSE(ConsoleTakeMessage(&Msg));
}

TEST(ConsoleRing, MirrorSeesEveryMessageEvenWhenTheRingIsFull) {
  ConsoleClearRing();
  QStringList Seen;
  ConsoleSetMirror([&Seen](const QString& s) { Seen << s; });
  for (int i = 0; i < 1200; ++i) {
    ConsolePrint(QString::number(i));
  }
  ConsoleSetMirror({});
  ASSERT_EQ(Seen.size(), 1200);
  EXPECT_EQ(Seen.last(), "1199");
  ConsoleClearRing();
}

TEST(ConsoleRing, MessagesFromSeveralThreadsArriveWhole) {
  ConsoleClearRing();
  auto Print = [](char c) {
    for (int i = 0; i < 200; ++i) {
      ConsolePrint(QString(50, QChar(c)));
    }
  };
  std::thread a(Print, 'a'), b(Print, 'b');
  a.join();
  b.join();
  CONSOLE_MSG Msg;
  int n = 0;
  while (ConsoleTakeMessage(&Msg)) {
    QString s = QString::fromUtf8(Msg.acText);
    EXPECT_TRUE(s == QString(50, 'a') || s == QString(50, 'b')) << s.toStdString();
    ++n;
  }
  EXPECT_EQ(n, 400);
}
