// The binding of a script context to the application: the symbolic constants, the names of the settings
// tables, and one API function per action row, all of which end in the row's own action.
#pragma once

#include <QList>
#include <QString>
#include <functional>

#include "app/base/Types.h"
#include "script/ScriptCore.h"

// Adds, in this order: the constant table (RM_BREAK_AT_MAIN right behind RM_BREAK_AT_SYMBOL), the
// VAR_* and PREF_* names with their indices, the COLOR_* names and the FONT_* names with their IDs.
// Returns 0, or -1 if the arena refused one.
int ScriptAddConstants(CTrans* pContext);

// Registers the prototype of every action row that has one, in ID order, each followed by its alias
// prototype if the row has an alias. A refused prototype logs "Error registering API function for "
// and the row's object name, and registration goes on. Returns the number refused.
int ScriptAddApi(CTrans* pContext);

// One name registered by ScriptAddApi: the function's name as the script calls it and its row.
struct SCRIPT_API_ENTRY {
  int RowId;
  QString sName;
};
// What the last ScriptAddApi registered, in registration order.
QList<SCRIPT_API_ENTRY> ScriptGetRegisteredApi();

// The one native function of every row; the row ID comes as the call's user pointer. String
// arguments are checked against the calling script's block; the arguments become the row's argument
// texts (addresses as "0x%08X", connect and reset modes by constant name, Edit.SysVar values by the
// variable's value table); the row's action runs; the jobs the row names are waited for. Returns the
// row's result, or -1 for an invalid string, a row that couldn't run or reported an error, or a wait
// that gave up. Target.GetReg and Target.ReadU8/U16/U32 read the target directly instead and yield 0
// when they can't.
I32 ScriptCallAction(const SCRIPT_API_CALL* pCall);

// The text a string argument points at, if it lies within the calling script's block. Otherwise
// prints "Invalid user function parameter: " with the value in hexadecimal and, in parentheses,
// decimal, in the error colour, and returns null; the API function then yields -1.
const char* ScriptCheckString(const CTrans* pContext, I64 Arg);

// Gives the probe's index of a core register named as in the register window, or -1. Until one is
// installed, Target.GetReg from a script runs through its action like a console line.
void ScriptSetRegisterResolver(std::function<int(const QString&)> pfResolve);
