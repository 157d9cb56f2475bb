/* Start-up code shared by all target programs: the vector table, copying .data and clearing .bss,
   and the handlers a program does not define itself (each loops where a debugger can see it). */
#include <stdint.h>

#include "semihost.h"

extern uint32_t __etext, __data_start__, __data_end__, __bss_start__, __bss_end__, __StackTop;
extern int main(void);

void Reset_Handler(void);
void Default_Handler(void);
void NMI_Handler(void) __attribute__((weak, alias("Default_Handler")));
void HardFault_Handler(void) __attribute__((weak, alias("Default_Handler")));
void MemManage_Handler(void) __attribute__((weak, alias("Default_Handler")));
void BusFault_Handler(void) __attribute__((weak, alias("Default_Handler")));
void UsageFault_Handler(void) __attribute__((weak, alias("Default_Handler")));
void SVC_Handler(void) __attribute__((weak, alias("Default_Handler")));
void DebugMon_Handler(void) __attribute__((weak, alias("Default_Handler")));
void PendSV_Handler(void) __attribute__((weak, alias("Default_Handler")));
void SysTick_Handler(void) __attribute__((weak, alias("Default_Handler")));
void IRQ0_Handler(void) __attribute__((weak, alias("Default_Handler")));
void IRQ1_Handler(void) __attribute__((weak, alias("Default_Handler")));

__attribute__((section(".vectors"), used)) void (*const g_apfVectors[18])(void) = {
    (void (*)(void))(&__StackTop),
    Reset_Handler,
    NMI_Handler,
    HardFault_Handler,
    MemManage_Handler,
    BusFault_Handler,
    UsageFault_Handler,
    0,
    0,
    0,
    0,
    SVC_Handler,
    DebugMon_Handler,
    0,
    PendSV_Handler,
    SysTick_Handler,
    IRQ0_Handler,
    IRQ1_Handler,
};

void Reset_Handler(void) {
  uint32_t* pSrc = &__etext;
  for (uint32_t* pDst = &__data_start__; pDst < &__data_end__;) {
    *pDst++ = *pSrc++;
  }
  for (uint32_t* pDst = &__bss_start__; pDst < &__bss_end__;) {
    *pDst++ = 0;
  }
  SemihostExit(main());
}

void Default_Handler(void) {
  for (;;) {
  }
}
