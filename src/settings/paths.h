#pragma once

#include <QString>

// The program's name and its two folders. Plain functions of where the
// program runs and of the user's data location: they hold no objects, so any
// layer may ask for a folder without reaching for the application.
//
// Any thread once the application name is set (the application sets it
// before anything else runs).
namespace Paths {

// The application's name; it also names the per-user configuration folder.
extern const char* const APP_NAME;

// The name of the desktop entry, its icon and its AppStream metadata, so the
// desktop can match a window to its menu entry.
extern const char* const DESKTOP_ID;

// The per-user writable data folder (log, options, lattice, tag map, runtime
// patches). Needs the application name to be set.
QString configDir();

// The read-only resource folder: style sheets, SVG symbols and the "patches"
// tree. In a build tree it is the executable's own folder; installed, it is
// share/merrow-tuning-arbo of the prefix the executable's bin/ belongs to.
// Nothing is ever written there.
QString resourceDir();

// The runtime patch folder inside the configuration folder, where the shell
// patches and the chosen voice ("arbo_voice.pd") are copied for libpd.
QString patchDir();

} // namespace Paths
