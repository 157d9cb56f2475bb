/* Target side of the memory channel terminal: a control block in RAM named _QUORIN_MCT with one
   up ring (target to debugger) and one down ring (debugger to target) per channel.

   Layout (all fields aligned 32-bit words, so each probe access is atomic):
     0  Magic0      0x54434D51, written last by QuorinMctInit
     4  Magic1      0x314E4843, written just before Magic0
     8  Version     1
    12  NumChannels 1 .. QUORIN_MCT_MAX_CHANNELS
    16  per channel c: up ring at 16 + 32 * c, down ring at 32 + 32 * c; each ring is
        Addr, Size, Head, Tail. The writer of a ring owns Head, the reader owns Tail; the ring is
        empty when Head == Tail and full when Head + 1 == Tail (modulo Size).
   Buffer 0 of the debugger's terminal is channel 0. */
#ifndef QUORIN_MCT_H
#define QUORIN_MCT_H

#include <stdint.h>

#define QUORIN_MCT_MAGIC0 0x54434D51u
#define QUORIN_MCT_MAGIC1 0x314E4843u
#define QUORIN_MCT_VERSION 1u
#define QUORIN_MCT_MAX_CHANNELS 2u

typedef struct {
  volatile uint32_t Addr;
  volatile uint32_t Size;
  volatile uint32_t Head;
  volatile uint32_t Tail;
} QUORIN_MCT_RING;

typedef struct {
  volatile uint32_t Magic0;
  volatile uint32_t Magic1;
  volatile uint32_t Version;
  volatile uint32_t NumChannels;
  QUORIN_MCT_RING aRing[2 * QUORIN_MCT_MAX_CHANNELS];
} QUORIN_MCT;

extern QUORIN_MCT _QUORIN_MCT;

void QuorinMctInit(void);
/* Copies at most NumBytes into the up ring of a channel without waiting; gives the bytes taken. */
unsigned QuorinMctWrite(unsigned Channel, const void* pData, unsigned NumBytes);
/* Waits until the whole text is in the up ring. */
void QuorinMctPuts(unsigned Channel, const char* sText);
/* Takes at most NumBytes from the down ring of a channel without waiting; gives the bytes read. */
unsigned QuorinMctRead(unsigned Channel, void* pData, unsigned NumBytes);

#endif
