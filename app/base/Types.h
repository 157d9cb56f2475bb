// Fixed-width integer names used in every interface of Zevra, and the few helpers that all layers share.
#pragma once

#include <cstdint>

typedef uint8_t U8;
typedef uint16_t U16;
typedef uint32_t U32;
typedef uint64_t U64;
typedef int8_t I8;
typedef int16_t I16;
typedef int32_t I32;
typedef int64_t I64;

// Number of elements of a plain array.
#define COUNTOF(a) (sizeof(a) / sizeof((a)[0]))
