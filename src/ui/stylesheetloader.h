#pragma once

// The program's look: "style.qss" and "style_mac.qss" from the resource
// folder, both required, applied to the whole application. Loaded at
// start-up and again by the tweak dialog's "Update", so that a sheet edited
// while the program runs shows without a restart.
//
// GUI thread.
class StyleSheetLoader
{
public:
    // Reads both sheets and applies them. False, with the reason logged, when
    // either is missing or unreadable; the look in force then stays.
    static bool load();
};
