// Texts of the standard questions that the application asks. The dialogs are made by the windows;
// only the texts, icons and "don't show again" periods live here.
#include "app/tables/SettingsTables.h"

const STANDARD_QUESTION g_QuestionResetCodeProfile = {"Reset Code Profile",
                                                      "Reset Execution Counters and Profiling Data?", "", -1};
const STANDARD_QUESTION g_QuestionReloadProgramFile = {
    "Reload Program File",
    "The program file has been modified by another application.<br>Do you want to reload it?", "", -1};
const STANDARD_QUESTION g_QuestionStopDebugging = {"Stop Debugging", "Close this Session?",
                                                   "control-power-red.png", 0};
const STANDARD_QUESTION g_QuestionTargetConnectionLost = {
    "Target Connection Lost", "Failed to read target status. Abort Debug Session?", "control-power-red.png",
    0};
const STANDARD_QUESTION g_QuestionSaveProjectChanges = {
    "Save Project Changes?", "The current project was modified. Save changes?", "document--pencil.png", 0};
const STANDARD_QUESTION g_QuestionTraceSettingsModified = {
    "Trace Settings Modified", "Do you want to save the configuration to the project?",
    "document--pencil.png", -1};
const STANDARD_QUESTION g_QuestionBackgroundMemoryAccess = {
    "Background Memory Access Unavailable",
    "Auto Refresh will periodically read memory.\nThe target device does not support background memory "
    "access.\nReading memory while the target is running affects the application performance.\n\nProceed "
    "and activate Auto-Refresh?",
    "", 0};
const STANDARD_QUESTION g_QuestionClear = {"Clear", "Clear? ", "broom.png", -1};
