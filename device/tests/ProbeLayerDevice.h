// The device over the real probe layer, fresh for each test: a new layer, event queue and device thread
// at the start, none of them left behind at the end, so no test sees another's target or events.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "device/Device.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"

class CProbeLayerDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PROBE_ResetLayer();
    SetTarvikApi(&TARVIK_GetProbeLayerApi());
    ResetDeviceEventQueue();
    pDevice = new CDevice();
  }
  void TearDown() override {
    delete pDevice;
    pDevice = nullptr;
    DispatchDeviceEvents(int(kEventRingSize));
    PROBE_ResetLayer();
    SetTarvikApi(nullptr);
  }
  // Aims the device at a gdbserver: the IP interface, its address, and the chip the server emulates.
  void UseGdbServer(const std::string& sAddress) {
    ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_HOST_IF, kHostIFIP), 0);
    ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_HOST_NAME, sAddress.c_str()), 0);
    ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_DEVICE_NAME, "Simulator Cortex-M3"), 0);
  }

  CDevice* pDevice = nullptr;
};
