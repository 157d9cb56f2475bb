// zevra-simserver: serves a simulated Cortex-M target over the GDB remote protocol on 127.0.0.1.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "device/probe/ProbeCore.h"
#include "tools/simserver/GdbSimServer.h"

namespace {

const char kUsage[] =
    "Usage: zevra-simserver [options]\n"
    "  --port N          TCP port on 127.0.0.1 (default 3333; 0 picks a free one)\n"
    "  --device NAME     simulator device (default \"Simulator Cortex-M4\")\n"
    "  --image FILE      flat binary image written to flash at 0 before serving, then reset\n"
    "  --bp-units N      hardware breakpoint units (0..16)\n"
    "  --drop-after N    hang up after N packets of each connection\n"
    "  --ignore-break    do not stop the target on the 0x03 interrupt\n"
    "  --once            serve one connection, then exit\n"
    "The first line on standard output is \"Listening on 127.0.0.1:PORT\".\n";

bool _Number(const char* s, long Max, long* pValue) {
  char* pEnd = nullptr;
  long v = strtol(s, &pEnd, 10);
  if (!*s || *pEnd || v < 0 || v > Max) {
    return false;
  }
  *pValue = v;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  SIM_SERVER_OPTIONS Options;
  long Port = 3333, BPUnits = -1;
  std::string sImage;
  bool Once = false;
  for (int i = 1; i < argc; i++) {
    std::string sArg = argv[i];
    const char* sValue = i + 1 < argc ? argv[i + 1] : nullptr;
    long n = 0;
    if (sArg == "--port" && sValue && _Number(sValue, 65535, &Port)) {
      i++;
    } else if (sArg == "--device" && sValue) {
      Options.sDevice = sValue;
      i++;
    } else if (sArg == "--image" && sValue) {
      sImage = sValue;
      i++;
    } else if (sArg == "--bp-units" && sValue && _Number(sValue, 16, &BPUnits)) {
      i++;
    } else if (sArg == "--drop-after" && sValue && _Number(sValue, 1000000000, &n)) {
      Options.DropAfter = int(n);
      i++;
    } else if (sArg == "--ignore-break") {
      Options.IgnoreBreak = true;
    } else if (sArg == "--once") {
      Once = true;
    } else {
      fprintf(stderr, "zevra-simserver: bad argument \"%s\"\n%s", argv[i], kUsage);
      return 2;
    }
  }
  char acOut[256];
  std::string sDevice = "device=" + Options.sDevice;
  if (TARVIKARM_ExecCommand(sDevice.c_str(), acOut, sizeof(acOut)) != 0 || TARVIKARM_Open() != nullptr ||
      TARVIKARM_Connect() != 0) {
    fprintf(stderr, "zevra-simserver: device \"%s\": %s\n", Options.sDevice.c_str(), acOut);
    return 1;
  }
  TARVIKARM_EnableSoftBPs(1);
  TARVIKARM_ExecCommand("SimSpeed=max", acOut, sizeof(acOut));
  if (BPUnits >= 0) {
    std::string sUnits = "SimBPUnits=" + std::to_string(BPUnits);
    TARVIKARM_ExecCommand(sUnits.c_str(), acOut, sizeof(acOut));
  }
  TARVIKARM_Halt();
  if (!sImage.empty()) {
    std::ifstream f(sImage, std::ios::binary);
    std::vector<U8> a((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (a.empty()) {
      fprintf(stderr, "zevra-simserver: image \"%s\" can't be read or is empty\n", sImage.c_str());
      return 1;
    }
    TARVIKARM_BeginDownload(0);
    if (TARVIKARM_WriteMemEx(0, U32(a.size()), a.data(), 0) != int(a.size()) ||
        TARVIKARM_EndDownload() != 0) {
      fprintf(stderr, "zevra-simserver: image \"%s\" (%zu bytes) does not fit the flash\n", sImage.c_str(),
              a.size());
      return 1;
    }
  }
  TARVIKARM_Reset();
  int Listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int One = 1;
  setsockopt(Listen, SOL_SOCKET, SO_REUSEADDR, &One, sizeof(One));
  sockaddr_in Addr{};
  Addr.sin_family = AF_INET;
  Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Addr.sin_port = htons(U16(Port));
  socklen_t Len = sizeof(Addr);
  if (bind(Listen, reinterpret_cast<sockaddr*>(&Addr), sizeof(Addr)) != 0 || listen(Listen, 1) != 0 ||
      getsockname(Listen, reinterpret_cast<sockaddr*>(&Addr), &Len) != 0) {
    fprintf(stderr, "zevra-simserver: port %ld: %s\n", Port, strerror(errno));
    return 1;
  }
  printf("Listening on 127.0.0.1:%u\n", ntohs(Addr.sin_port));
  fflush(stdout);
  CGdbSimServer Server(Options);
  do {
    int Socket = accept4(Listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (Socket < 0) {
      continue;
    }
    Server.Serve(Socket);
    TARVIKARM_Halt();
  } while (!Once);
  close(Listen);
  PROBE_ResetLayer();
  return 0;
}
