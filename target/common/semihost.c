#include "semihost.h"

static int _Call(int Op, const void* pArg) {
  register int r0 __asm__("r0") = Op;
  register const void* r1 __asm__("r1") = pArg;
  __asm__ volatile("bkpt #0xab" : "+r"(r0) : "r"(r1) : "memory");
  return r0;
}

void SemihostWrite0(const char* sText) {
  _Call(0x04, sText);
}

void SemihostExit(int Status) {
  _Call(0x18, (const void*)(Status == 0 ? 0x20026 : 0x20023));
  for (;;) {
  }
}
