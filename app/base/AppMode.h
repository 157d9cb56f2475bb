// Process-wide facts set once at start-up: whether Zevra runs headless in batch mode (questions then get
// fixed answers instead of dialogs) and which thread is the main thread.
#pragma once

void SetBatchMode(bool On);
bool IsBatchMode();

// Remembers the calling thread as the main thread.
void RememberMainThread();
bool IsMainThread();
