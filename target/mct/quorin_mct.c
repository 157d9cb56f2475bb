#include "quorin_mct.h"

#define UP_SIZE 256u
#define DOWN_SIZE 64u

QUORIN_MCT _QUORIN_MCT;
static uint8_t _aUp[QUORIN_MCT_MAX_CHANNELS][UP_SIZE];
static uint8_t _aDown[QUORIN_MCT_MAX_CHANNELS][DOWN_SIZE];

void QuorinMctInit(void) {
  _QUORIN_MCT.Magic0 = 0;
  _QUORIN_MCT.Magic1 = 0;
  _QUORIN_MCT.Version = QUORIN_MCT_VERSION;
  _QUORIN_MCT.NumChannels = QUORIN_MCT_MAX_CHANNELS;
  for (unsigned c = 0; c < QUORIN_MCT_MAX_CHANNELS; c++) {
    QUORIN_MCT_RING* pUp = &_QUORIN_MCT.aRing[2 * c];
    QUORIN_MCT_RING* pDown = &_QUORIN_MCT.aRing[2 * c + 1];
    pUp->Addr = (uint32_t)(uintptr_t)_aUp[c];
    pUp->Size = UP_SIZE;
    pUp->Head = pUp->Tail = 0;
    pDown->Addr = (uint32_t)(uintptr_t)_aDown[c];
    pDown->Size = DOWN_SIZE;
    pDown->Head = pDown->Tail = 0;
  }
  /* The debugger may look for the block at any time: the magic words go last. */
  __asm__ volatile("dmb" ::: "memory");
  _QUORIN_MCT.Magic1 = QUORIN_MCT_MAGIC1;
  _QUORIN_MCT.Magic0 = QUORIN_MCT_MAGIC0;
}

unsigned QuorinMctWrite(unsigned Channel, const void* pData, unsigned NumBytes) {
  if (Channel >= QUORIN_MCT_MAX_CHANNELS) {
    return 0;
  }
  QUORIN_MCT_RING* pRing = &_QUORIN_MCT.aRing[2 * Channel];
  const uint8_t* p = (const uint8_t*)pData;
  uint8_t* pBuf = (uint8_t*)(uintptr_t)pRing->Addr;
  uint32_t Head = pRing->Head;
  unsigned n = 0;
  while (n < NumBytes) {
    uint32_t Next = (Head + 1) % pRing->Size;
    if (Next == pRing->Tail) {
      break;
    }
    pBuf[Head] = p[n++];
    Head = Next;
  }
  __asm__ volatile("dmb" ::: "memory");
  pRing->Head = Head;
  return n;
}

void QuorinMctPuts(unsigned Channel, const char* sText) {
  unsigned Len = 0;
  while (sText[Len]) {
    Len++;
  }
  while (Len) {
    unsigned n = QuorinMctWrite(Channel, sText, Len);
    sText += n;
    Len -= n;
  }
}

unsigned QuorinMctRead(unsigned Channel, void* pData, unsigned NumBytes) {
  if (Channel >= QUORIN_MCT_MAX_CHANNELS) {
    return 0;
  }
  QUORIN_MCT_RING* pRing = &_QUORIN_MCT.aRing[2 * Channel + 1];
  uint8_t* p = (uint8_t*)pData;
  const uint8_t* pBuf = (const uint8_t*)(uintptr_t)pRing->Addr;
  uint32_t Tail = pRing->Tail;
  unsigned n = 0;
  while (n < NumBytes && Tail != pRing->Head) {
    p[n++] = pBuf[Tail];
    Tail = (Tail + 1) % pRing->Size;
  }
  __asm__ volatile("dmb" ::: "memory");
  pRing->Tail = Tail;
  return n;
}
