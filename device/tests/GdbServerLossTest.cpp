// The device on a gdbserver that dies while the target is halted: nobody asks the target anything,
// yet the device's own halt poll notices and reports the loss once, as it does for a running target.
#include <gtest/gtest.h>

#include <chrono>

#include "device/Device.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/tests/GdbFakeServer.h"
#include "device/tests/PumpUntil.h"

namespace {

// The device polls a halted target's state every 5 s (a resume behind its back is noticed by then).
constexpr int kHaltedPollMs = 5000;
constexpr int kSlackMs = 1500;

struct LOSS_RECORDER : CDeviceEventListener {
  QStringList Calls;
  void OnDeviceConnectDone(CONNECT_MODES m) override { Calls << QString("ConnectDone %1").arg(m); }
  void OnDeviceConnectionLost() override { Calls << "ConnectionLost"; }
};

TEST(GdbServerLoss, ServerDyingUnderAHaltedTargetIsReportedOnceWithoutAnyAccess) {
  PROBE_ResetLayer();
  SetTarvikApi(&TARVIK_GetProbeLayerApi());
  ResetDeviceEventQueue();
  FAKE_TARGET Target;
  CFakeGdbServer Server([&Target](const std::string& s) { return Target.Handle(s); });
  {
    CDevice Device;
    LOSS_RECORDER Recorder;
    ASSERT_EQ(Device.ScheduleSetConfigParam(DCP_HOST_IF, kHostIFIP), 0);
    ASSERT_EQ(Device.ScheduleSetConfigParam(DCP_HOST_NAME, Server.GetAddress().c_str()), 0);
    ASSERT_EQ(Device.ScheduleSetConfigParam(DCP_DEVICE_NAME, "Simulator Cortex-M3"), 0);
    ASSERT_EQ(Device.ScheduleConnect(CM_ATTACH_HALT), 0);
    ASSERT_TRUE(PumpUntil([&] {
      return Recorder.Calls.contains(QString("ConnectDone %1").arg(CM_ATTACH_HALT));
    })) << Recorder.Calls.join("; ").toStdString();
    ASSERT_TRUE(PumpUntil([&] { return Device.IsHaltCertain(); }));
    Recorder.Calls.clear();
    Server.Kill();
    auto Start = std::chrono::steady_clock::now();
    ASSERT_TRUE(
        PumpUntil([&] { return Recorder.Calls.contains("ConnectionLost"); }, kHaltedPollMs + kSlackMs))
        << Recorder.Calls.join("; ").toStdString();
    EXPECT_LT(std::chrono::steady_clock::now() - Start, std::chrono::milliseconds(kHaltedPollMs + kSlackMs));
    DispatchDeviceEvents(100);
    EXPECT_EQ(Recorder.Calls.count("ConnectionLost"), 1);
    EXPECT_TRUE(Device.IsConnected());  // formally open until the session disconnects
    ASSERT_EQ(Device.ScheduleDisconnect(), 0);
    EXPECT_TRUE(PumpUntil([&] { return !Device.IsConnected(); }));
  }
  DispatchDeviceEvents(int(kEventRingSize));
  PROBE_ResetLayer();
  SetTarvikApi(nullptr);
}

}  // namespace
