// The index cache: what the load of a program computed from its debug information (the DIE records,
// the lists and per-scope tables, source files, line rows), kept in a file so that the next open of
// the same program skips the walk. A cache file belongs to one program path and holds a hash of the
// program's bytes; a changed program, a damaged file or another format version is not used.
#pragma once

#include <QString>

#include "app/base/Types.h"

struct ELF_FILE;

// The cache folder keeps this many files, those written or read last.
constexpr int kMaxIndexCacheFiles = 8;

// The folder of the cache files; an empty text switches the cache off (the default).
void ELF_SetIndexCacheDir(const QString& sDir);
QString ELF_GetIndexCacheDir();
// The cache file of a program path.
QString ELF_GetIndexCachePath(const char* sProgramPath);

// The hash of the file format: of the program's bytes and of the payload, as the header holds them.
U64 ELF_IndexCacheHash(const U8* p, U64 Size);
// Where the payload starts in a cache file.
constexpr U64 kIndexCacheHeaderSize = 48;

// Fills the symbol tree of a freshly opened file from its cache file. 0 when it did; -1 when there
// is no usable cache (the tree is then untouched and the caller walks the DWARF).
int ELF_ReadIndexCache(ELF_FILE* pFile);
// Writes the cache file of an open file, unless the tree was read from an identical one or the file
// has no debug information. 0 written or nothing to write, -1 failure (logged; an old cache file
// stays as it was).
int ELF_WriteIndexCache(ELF_FILE* pFile);
