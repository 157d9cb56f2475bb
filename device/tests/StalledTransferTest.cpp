// A gdbserver that stops answering after the connect: a multi-part read or write ends at its first
// time-out, inside the job's limit, instead of waiting out the reply limit once per part.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <vector>

#include "device/Device.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"
#include "device/tests/ProbeLayerDevice.h"
#include "device/tests/PumpUntil.h"
#include "device/tests/StallingGdbServer.h"

namespace {

struct CONNECT_RECORDER : CDeviceEventListener {
  bool Connected = false;
  void OnDeviceConnectDone(CONNECT_MODES) override { Connected = true; }
};

class StalledServer : public CProbeLayerDeviceTest {
 protected:
  void SetUp() override {
    CProbeLayerDeviceTest::SetUp();
    UseGdbServer(Server.GetAddress());
    ASSERT_EQ(pDevice->ScheduleConnect(CM_ATTACH_HALT), 0);
    ASSERT_TRUE(PumpUntil([&] { return Recorder.Connected && pDevice->IsHaltCertain(); }));
    ASSERT_TRUE(PumpUntil([&] { return !pDevice->IsJobPending(JT_ANY); }));
  }
  CStallingGdbServer Server;
  CONNECT_RECORDER Recorder;
};

}  // namespace

// Without the rule the read below asks 16 chunks and then 64 Ki bytes one by one, each waiting out the
// back-end's 3 s reply limit: days. The write asks 16 chunks: close to a minute.
TEST_F(StalledServer, OneTimeOutEndsAMultiPartReadOrWriteWithinTheJobLimit) {
  std::vector<U8> Block(CStallingGdbServer::kRamSize, 0x5A);
  const struct {
    const char* sWhat;
    U32 Type;
    const char* sPackets;  // the packets that carry the transfer
  } aCase[] = {{"read, chunk-wise then item-wise", JT_READ_MEM, "m"},
               {"write, chunk-wise", JT_WRITE_MEM, "MX"}};
  for (const auto& c : aCase) {
    SCOPED_TRACE(c.sWhat);
    Server.Stall();
    QElapsedTimer Timer;
    Timer.start();
    if (c.Type == JT_READ_MEM) {
      ASSERT_EQ(pDevice->ScheduleReadMem(CStallingGdbServer::kRamAddr, CStallingGdbServer::kRamSize, 0x1000,
                                         0, CDevice::MEM_FLAG_ITEM_WISE_AFTER_SHORT),
                0);
    } else {
      ASSERT_EQ(pDevice->ScheduleWriteMem(CStallingGdbServer::kRamAddr, CStallingGdbServer::kRamSize,
                                          Block.data(), 0x1000, 0, 0),
                0);
    }
    // The job's own limit (10 s for a read, 120 s for a write) bounds the wait.
    EXPECT_EQ(pDevice->WaitForJob(c.Type, false), 0);
    const qint64 ElapsedMS = Timer.elapsed();
    RecordProperty(std::string(c.sPackets) + "_ms", std::to_string(ElapsedMS));
    printf("[ measured ] stalled %s ended after %lld ms\n", c.sWhat, static_cast<long long>(ElapsedMS));
    EXPECT_LT(ElapsedMS, JobTypeToTimeoutMS(JT_READ_MEM));
    EXPECT_EQ(Server.CountSinceStall(c.sPackets), 1);
    DispatchDeviceEvents(100);
  }
}
