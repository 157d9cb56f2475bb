// The device job queue end to end on a scripted probe: submission, the device thread, completion events
// and their filter, waiting, cancellation and the limits of the rings.
#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <chrono>
#include <functional>

#include "device/Device.h"
#include "device/DeviceDataProvider.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/tests/FakeProbe.h"
#include "device/tests/PumpUntil.h"

namespace {

// Counts the read completions, which only the data provider hears. Made before anything asks for the
// provider, so it is the one.
struct COUNTING_PROVIDER : CDeviceDataProvider {
  std::atomic<int> nReadRegDone{0};
  void OnDeviceReadRegDone(U32, I64) override { nReadRegDone++; }
};
COUNTING_PROVIDER g_Provider;

struct RECORDER : CDeviceEventListener {
  QStringList Calls;
  void OnDeviceConnectDone(CONNECT_MODES m) override { Calls << QString("ConnectDone %1").arg(m); }
  void OnDeviceExecCmdDone(const char* s) override { Calls << QString("ExecCmdDone %1").arg(s); }
  void OnDeviceExecCmdFailed(const char* s, char* e) override {
    Calls << QString("ExecCmdFailed %1: %2").arg(s, e);
  }
  void OnDeviceHaltDone(U32 PC, HALT_REASONS r) override {
    Calls << QString("HaltDone 0x%1 %2").arg(PC, 0, 16).arg(r);
  }
  void OnDeviceResetDone(U32 PC, RESET_MODES m) override {
    Calls << QString("ResetDone 0x%1 %2").arg(PC, 0, 16).arg(m);
  }
  void OnDeviceResumeDone(RESUME_MODES m) override { Calls << QString("ResumeDone %1").arg(m); }
  void OnDeviceStepInstDone(U32 PC) override { Calls << QString("StepInstDone 0x%1").arg(PC, 0, 16); }
  void OnDeviceStepped(U32 PC) override { Calls << QString("Stepped 0x%1").arg(PC, 0, 16); }
  void OnDeviceWriteRegDone(U32 Idx, I64 v) override {
    Calls << QString("WriteRegDone %1 0x%2").arg(Idx).arg(v, 0, 16);
  }
  void OnDeviceWriteAccess() override { Calls << "WriteAccess"; }
  void OnDeviceConnectionLost() override { Calls << "ConnectionLost"; }
  void OnDeviceAboutToStep() override { Calls << "AboutToStep"; }
};

class DeviceQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetFake();
    SetTarvikApi(&FakeProbeApi());
    ResetDeviceEventQueue();
    pDevice = new CDevice();
  }
  void TearDown() override {
    Fake().Release();
    delete pDevice;
    DispatchDeviceEvents(int(kEventRingSize));
    SetTarvikApi(nullptr);
  }
  // Attaches to the scripted target and waits until its halt has been seen, so that tests start from a
  // halted target with a ready session.
  void Connect(CONNECT_MODES Mode = CM_ATTACH_HALT) {
    ASSERT_EQ(pDevice->ScheduleConnect(Mode), 0);
    // 1 means it had already finished.
    ASSERT_GE(pDevice->WaitForJob(JT_CONNECT, false), 0);
    ASSERT_TRUE(PumpUntil([&] { return pDevice->IsHaltCertain(); }));
    DispatchDeviceEvents(100);
    ASSERT_TRUE(pDevice->IsConnected());
    Recorder.Calls.clear();
  }
  // Occupies the device thread inside a probe command until Fake().Release().
  void HoldDeviceThread() {
    Fake().Hold();
    ASSERT_EQ(pDevice->ScheduleExecTarvikCmd("hold"), 0);
    ASSERT_TRUE(Fake().WaitEntered(5000));
  }

  CDevice* pDevice = nullptr;
  RECORDER Recorder;
};

}  // namespace

TEST_F(DeviceQueue, CommandJobRunsOnTheDeviceThreadAndIsHeardOnThisThread) {
  Connect();
  ASSERT_EQ(pDevice->ScheduleExecTarvikCmd("SetSpeed 4000"), 0);
  EXPECT_GE(pDevice->WaitForJobThenPump(JT_EXEC_TARVIK_CMD, false), 0);
  ASSERT_EQ(pDevice->ScheduleExecTarvikCmd("fail-now"), 0);
  EXPECT_GE(pDevice->WaitForJobThenPump(JT_EXEC_TARVIK_CMD, false), 0);
  EXPECT_EQ(Recorder.Calls,
            QStringList({"ExecCmdDone SetSpeed 4000", "ExecCmdFailed fail-now: unknown command: fail-now"}));
}

TEST_F(DeviceQueue, WaitingReportsNoJobDoneAndTimeout) {
  Connect();
  EXPECT_EQ(pDevice->WaitForJob(JT_STEP_OUT, true), 1);  // nothing of that type pending
  HoldDeviceThread();
  QTemporaryDir Dir;
  GetLogSink().OpenFile(Dir.filePath("wait.log"));
  GetLogSink().SetInterval(0);
  EXPECT_EQ(pDevice->WaitForJob(JT_EXEC_TARVIK_CMD, false, 100), -1);
  GetLogSink().Flush();
  QFile Log(Dir.filePath("wait.log"));
  ASSERT_TRUE(Log.open(QIODevice::ReadOnly));
  EXPECT_TRUE(Log.readAll().contains("[W] Timeout while waiting for Job JT_EXEC_TARVIK_CMD"));
  GetLogSink().OpenFile(QString());
  // The job goes on after the time-out, and its completion still arrives.
  Fake().Release();
  EXPECT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ExecCmdDone hold"); }));
}

TEST_F(DeviceQueue, FullQueueRefusesTheNextJobUntilCompletionsAreDispatched) {
  Connect();
  HoldDeviceThread();
  for (U32 i = 0; i < kJobRingSize; ++i) {
    ASSERT_EQ(pDevice->ScheduleReadReg(i % 16), 0) << i;
  }
  QTemporaryDir Dir;
  GetLogSink().OpenFile(Dir.filePath("full.log"));
  GetLogSink().SetInterval(0);
  EXPECT_EQ(pDevice->ScheduleReadReg(0), -1);
  GetLogSink().Flush();
  QFile Log(Dir.filePath("full.log"));
  ASSERT_TRUE(Log.open(QIODevice::ReadOnly));
  EXPECT_TRUE(Log.readAll().contains("[W] Job JT_READ_REG not scheduled. Queue is full."));
  GetLogSink().OpenFile(QString());

  // Let the device run everything without dispatching: every record stays taken until its completion
  // has been dispatched on this thread.
  U64 Started = pDevice->GetStats().JobsStarted;
  Fake().Release();
  WaitForDevice([&] { return pDevice->GetStats().JobsStarted >= Started + kJobRingSize; }, 20000, 0);
  ASSERT_EQ(pDevice->GetStats().JobsStarted, Started + kJobRingSize);
  EXPECT_EQ(pDevice->ScheduleReadReg(1), -1);
  ASSERT_EQ(DispatchDeviceEvents(1), 1);  // the held command's completion
  EXPECT_EQ(pDevice->ScheduleReadReg(1), -1);
  ASSERT_EQ(DispatchDeviceEvents(1), 1);  // the oldest read's completion frees its slot
  EXPECT_EQ(pDevice->ScheduleReadReg(1), 0);
}

TEST_F(DeviceQueue, ResetCancelsQueuedReadsAndLaterReadsRun) {
  Connect();
  HoldDeviceThread();
  g_Provider.nReadRegDone = 0;
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(pDevice->ScheduleReadReg(U32(i)), 0);
  }
  ASSERT_EQ(pDevice->ScheduleReset(RM_RESET_HALT), 0);
  Fake().Release();
  ASSERT_GE(pDevice->WaitForJob(JT_RESET, false), 0);
  ASSERT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ResetDone 0x200 0"); }));
  EXPECT_TRUE(Recorder.Calls.contains("HaltDone 0x200 0"));  // a finished reset is also a halt
  EXPECT_EQ(pDevice->WaitForJob(JT_READ_REG, false), 1);
  DispatchDeviceEvents(100);
  EXPECT_EQ(g_Provider.nReadRegDone.load(), 0);
  ASSERT_EQ(pDevice->ScheduleReadReg(3), 0);
  EXPECT_TRUE(PumpUntil([&] { return g_Provider.nReadRegDone.load() == 1; }));
}

TEST_F(DeviceQueue, HaltWhileHaltedDoesNotCallTheProbeAndReportsNothing) {
  Connect();
  ASSERT_TRUE(pDevice->IsHalted());
  ASSERT_EQ(pDevice->ScheduleHalt(), 0);
  EXPECT_GE(pDevice->WaitForJobThenPump(JT_HALT, false), 0);
  DispatchDeviceEvents(100);
  EXPECT_EQ(Fake().nHalt.load(), 0);
  EXPECT_TRUE(Recorder.Calls.isEmpty()) << Recorder.Calls.join("; ").toStdString();
}

TEST_F(DeviceQueue, MutedResetStillRunsButIsNotHeard) {
  Connect();
  pDevice->JobEventMuted[JT_RESET] = 1;
  ASSERT_EQ(pDevice->ScheduleReset(RM_RESET_HALT), 0);
  EXPECT_GE(pDevice->WaitForJobThenPump(JT_RESET, false), 0);
  DispatchDeviceEvents(100);
  EXPECT_EQ(Fake().nReset.load(), 1);
  EXPECT_TRUE(Recorder.Calls.isEmpty()) << Recorder.Calls.join("; ").toStdString();
}

TEST_F(DeviceQueue, WritingThePCMakesEveryListenerHearANewHalt) {
  Connect();
  RECORDER Second;
  ASSERT_EQ(pDevice->ScheduleWriteReg(REG_PC, 0x400), 0);
  EXPECT_GE(pDevice->WaitForJobThenPump(JT_WRITE_REG, false), 0);
  QStringList Expected = {"WriteAccess", "WriteRegDone 15 0x400", "HaltDone 0x400 1"};
  EXPECT_TRUE(PumpUntil([&] { return Second.Calls == Expected; })) << Second.Calls.join("; ").toStdString();
  EXPECT_EQ(Recorder.Calls, Expected);
}

TEST_F(DeviceQueue, HeldStepKeyReportsOnlyTheLastStep) {
  Connect();
  HoldDeviceThread();
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(pDevice->ScheduleStepInst(), 0);
  }
  Fake().Release();
  // Wait for the last step without pumping, so that all five reports are queued together.
  ASSERT_TRUE(WaitForDevice([&] { return !pDevice->IsJobPending(JT_STEP_INST); }, 10000, 0));
  DispatchDeviceEvents(100);
  QStringList Steps = Recorder.Calls.filter("Step");
  EXPECT_EQ(Steps, QStringList({"AboutToStep", "AboutToStep", "AboutToStep", "AboutToStep", "AboutToStep",
                                "StepInstDone 0x10a", "Stepped 0x10a"}));
  EXPECT_EQ(Fake().nStep.load(), 5);
}

TEST_F(DeviceQueue, RecordWithoutItsRequiredBufferIsNeverRunAndDoesNotStallTheQueue) {
  Connect();
  int ExecBefore = Fake().nExec.load();
  DEVICE_JOB Job;
  memset(&Job, 0, sizeof(Job));
  Job.Type = JT_EXEC_TARVIK_CMD;  // needs the command text in apData[0]
  ASSERT_EQ(pDevice->ScheduleJob(&Job), 0);
  ASSERT_EQ(pDevice->ScheduleExecTarvikCmd("after"), 0);
  EXPECT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ExecCmdDone after"); }));
  EXPECT_EQ(Fake().nExec.load() - ExecBefore, 1);
  EXPECT_EQ(Recorder.Calls.size(), 1);
}

TEST_F(DeviceQueue, HaltMadeByTheTargetIsReportedWithThePC) {
  Connect();
  ASSERT_EQ(pDevice->ScheduleContinue(GO_USER), 0);
  ASSERT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ResumeDone 0"); }));
  Fake().PC = 0x1234;
  Fake().Halted = 1;  // e.g. a breakpoint
  EXPECT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("HaltDone 0x1234 0"); }));
  EXPECT_TRUE(pDevice->IsHalted());
}

TEST_F(DeviceQueue, HaltIsNotReportedBeforeTheSessionIsReady) {
  Connect(CM_BARE);  // a bare connect makes no session
  ASSERT_EQ(pDevice->ScheduleContinue(GO_USER), 0);
  ASSERT_TRUE(PumpUntil([&] { return !pDevice->IsHalted() && pDevice->IsRunning(); }));
  Fake().Halted = 1;
  ASSERT_TRUE(PumpUntil([&] { return pDevice->IsHaltCertain(); }));
  DispatchDeviceEvents(100);
  EXPECT_FALSE(Recorder.Calls.contains("HaltDone 0x100 0")) << Recorder.Calls.join("; ").toStdString();
}

TEST_F(DeviceQueue, LostConnectionCancelsPendingJobsAndIsReportedOnce) {
  Connect();
  ASSERT_EQ(pDevice->ScheduleContinue(GO_USER), 0);
  ASSERT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ResumeDone 0"); }));
  HoldDeviceThread();
  ASSERT_EQ(pDevice->ScheduleReadReg(1), 0);
  Fake().IsHaltedResult = -1;
  Fake().Release();
  ASSERT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ConnectionLost"); }));
  EXPECT_TRUE(pDevice->IsConnLost());
  EXPECT_TRUE(pDevice->IsConnected());  // formally open until the session disconnects
  EXPECT_FALSE(pDevice->IsStateValid());
  DispatchDeviceEvents(100);
  EXPECT_EQ(Recorder.Calls.count("ConnectionLost"), 1);
}

TEST(DeviceJobData, AttachRefusesWhatTheRecordCannotHold) {
  DEVICE_JOB Job;
  memset(&Job, 0, sizeof(Job));
  char acText[] = "text";
  EXPECT_EQ(AttachJobData(&Job, 0, 4, acText), -1);  // type 0
  Job.Type = JT_LAST;
  EXPECT_EQ(AttachJobData(&Job, 0, 4, acText), -1);
  Job.Type = JT_EXEC_TARVIK_CMD;
  EXPECT_EQ(AttachJobData(&Job, 3, 4, acText), -1);
  EXPECT_EQ(AttachJobData(&Job, 0, 0, acText), -1);
  EXPECT_EQ(AttachJobData(&Job, 0, 10000001, nullptr), -1);
  ASSERT_EQ(AttachJobData(&Job, 0, 4, acText), 0);
  EXPECT_EQ(Job.aDataLen[0], 5u);  // one more byte keeps a text terminated
  EXPECT_STREQ(reinterpret_cast<char*>(Job.apData[0]), "text");
  EXPECT_EQ(AttachJobData(&Job, 0, 4, acText), -1);  // slot taken
  EXPECT_EQ(AttachJobData(&Job, 2, 10000000, nullptr), 0);
  FreeJobData(&Job);
}

TEST(DeviceJobTypes, NamesQueuesAndLimits) {
  EXPECT_STREQ(JobTypeToName(JT_READ_MEM), "JT_READ_MEM");
  EXPECT_STREQ(JobTypeToName(10), "Unknown");
  EXPECT_STREQ(JobTypeToName(66), "Unknown");
  EXPECT_STREQ(JobTypeToName(1000), "Unknown");
  EXPECT_EQ(JobTypeToQueue(JT_MEASURE_CORE_SPEED), 2);
  EXPECT_EQ(JobTypeToQueue(JT_READ_REGS), 1);
  EXPECT_EQ(JobTypeToQueue(JT_RESET), 0);
  EXPECT_EQ(JobTypeToQueue(500), 1);
  EXPECT_EQ(JobTypeToTimeoutMS(JT_CONNECT), 120000);
  EXPECT_EQ(JobTypeToTimeoutMS(JT_READ_MEM), 10000);
}

TEST(DeviceListeners, RemovedListenerLeavesTheOthersInOrder) {
  std::vector<int> Heard;
  struct ORDERED : CDeviceEventListener {
    std::vector<int>* p;
    int n;
    ORDERED(std::vector<int>* pHeard, int Id) : p(pHeard), n(Id) {}
    void OnDeviceEndProgress() override { p->push_back(n); }
  };
  auto* pA = new ORDERED(&Heard, 1);
  auto* pB = new ORDERED(&Heard, 2);
  ORDERED C(&Heard, 3);
  delete pB;
  ORDERED D(&Heard, 4);
  DispatchDeviceEvent(DEVICE_EVENT{DEV_EVENT_PROGRESS_END, {0, 0}});
  EXPECT_EQ(Heard, std::vector<int>({1, 3, 4}));
  delete pA;
  Heard.clear();
  DispatchDeviceEvent(DEVICE_EVENT{DEV_EVENT_PROGRESS_END, {0, 0}});
  EXPECT_EQ(Heard, std::vector<int>({3, 4}));
}

TEST(DeviceEventRing, StringEventsCarryTheirTextAndAFullRingRefuses) {
  ResetDeviceEventQueue();
  struct LOGS : CDeviceEventListener {
    QStringList Texts;
    void OnDeviceLogMsg(const char* s, MSG_INFO_FLAGS f) override { Texts << QString("%1/%2").arg(s).arg(f); }
  } Logs;
  ASSERT_EQ(PostDeviceStringEvent(DEV_EVENT_LOG_MSG, "from the probe", MSG_FROM_PROBE), 0);
  DispatchDeviceEvents(10);
  EXPECT_EQ(Logs.Texts, QStringList({QString("from the probe/%1").arg(MSG_FROM_PROBE)}));
  for (U32 i = 0; i < kEventRingSize; ++i) {
    ASSERT_EQ(PostDeviceEvent(DEV_EVENT_PROGRESS_VALUE, i, 0), 0);
  }
  EXPECT_EQ(PostDeviceEvent(DEV_EVENT_PROGRESS_VALUE, 0, 0), -1);
  EXPECT_EQ(DispatchDeviceEvents(int(kEventRingSize)), int(kEventRingSize));
  EXPECT_EQ(PostDeviceEvent(DEV_EVENT_PROGRESS_VALUE, 0, 0), 0);
  ResetDeviceEventQueue();
}
