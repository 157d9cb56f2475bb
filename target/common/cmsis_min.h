/* The few Cortex-M system registers the target programs touch, at their architectural addresses. */
#ifndef CMSIS_MIN_H
#define CMSIS_MIN_H

#include <stdint.h>

#define REG32(a) (*(volatile uint32_t*)(a))
#define SYST_CSR REG32(0xE000E010u)
#define SYST_RVR REG32(0xE000E014u)
#define SYST_CVR REG32(0xE000E018u)
#define SCB_ICSR REG32(0xE000ED04u)
#define SCB_SHPR3 REG32(0xE000ED20u)
#define NVIC_ISER0 REG32(0xE000E100u)
#define NVIC_ISPR0 REG32(0xE000E200u)
#define ITM_PORT32(n) REG32(0xE0000000u + 4u * (n))
#define ITM_PORT8(n) (*(volatile uint8_t*)(0xE0000000u + 4u * (n)))
#define ITM_TER REG32(0xE0000E00u)
#define ITM_TCR REG32(0xE0000E80u)

static inline void ItmSendChar(unsigned Port, char c) {
  if ((ITM_TCR & 1u) && (ITM_TER & (1u << Port))) {
    while (ITM_PORT32(Port) == 0) {
    }
    ITM_PORT8(Port) = (uint8_t)c;
  }
}

#endif
