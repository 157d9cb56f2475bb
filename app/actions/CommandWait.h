// What a caller does after running a row so that it sees the effect of its own command: wait for the
// jobs the row names, and let the device and its events settle. Batch mode and script calls share it.
#pragma once

// Applies the waits a script call of the row gets: the job types of its "waits for" list, and the
// special waits of Debug.Start, Debug.Reset, Debug.Halt and Exec.Reset. Returns 0, or -1 if a wait gave
// up (time-out or the device thread ended).
int WaitForCommandJobs(int Id);

// Pumps events until no job is queued or running and no device event is waiting, or until TimeoutMS
// has passed. True when settled.
bool SettleDevice(int TimeoutMS);

// Runs a row (as TriggerAction) and then applies its waits. Returns the row's result, or -1.
int RunActionAndWait(int Id);
