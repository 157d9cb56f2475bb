// The Elf.* commands on top of the program index.
#include "app/ElfCommands.h"

#include <QAction>

#include "app/actions/ActionTable.h"
#include "debuginfo/ProgramIndex.h"
#include "windows/Window.h"

namespace {

constexpr U32 kNoAnswer = 0xFFFFFFFF;

int _Row(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

U32 _Endianess() {
  return ELF_GetBigEndian() ? 1 : 0;
}

}  // namespace

CElfCommands::CElfCommands(QObject* pParent) : QObject(pParent) {}

void CElfCommands::ConnectTo(CWindow* pWindow) {
  static const struct {
    const char* sRow;
    const char* sSlot;
  } aHandler[] = {
      {"Elf.GetBaseAddr", SLOT(OnActionElfGetBaseAddrTriggered())},
      {"Elf.GetEntryPointPC", SLOT(OnActionElfGetEntryPointPCTriggered())},
      {"Elf.GetEntryFuncPC", SLOT(OnActionElfGetEntryFuncPCTriggered())},
      {"Elf.GetEndianess", SLOT(OnActionElfGetEndianessTriggered())},
  };
  for (const auto& h : aHandler) {
    QAction* pAction = GetAction(_Row(h.sRow));
    if (pAction == nullptr) {
      continue;
    }
    pWindow->Disconnect(pAction, SIGNAL(triggered()), pWindow, SLOT(OnActionNotAvailableTriggered()));
    pWindow->Connect(pAction, SIGNAL(triggered()), this, h.sSlot);
  }
}

void CElfCommands::_Answer(const char* sRow, U32 (*pfQuery)(), bool IsAddress) {
  const int Id = _Row(sRow);
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  if (!ELF_IsLoaded()) {
    SetError(Id, "no program file open");
    return;
  }
  const U32 Value = pfQuery();
  if (IsAddress && Value == kNoAnswer) {
    // Scripts test for all ones, which the failed call also yields.
    SetError(Id, "not found in the program file", ELF_GetFileName());
    return;
  }
  SetResult(Id, I32(Value));
}

void CElfCommands::OnActionElfGetBaseAddrTriggered() {
  _Answer("Elf.GetBaseAddr", &ELF_GetBaseAddr, true);
}

void CElfCommands::OnActionElfGetEntryPointPCTriggered() {
  _Answer("Elf.GetEntryPointPC", &ELF_GetEntryPointPC, true);
}

void CElfCommands::OnActionElfGetEntryFuncPCTriggered() {
  _Answer("Elf.GetEntryFuncPC", &ELF_GetEntryFuncPC, true);
}

void CElfCommands::OnActionElfGetEndianessTriggered() {
  _Answer("Elf.GetEndianess", &_Endianess, false);
}
