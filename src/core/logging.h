#pragma once

#include <QLoggingCategory>

// Brenta's traces, off by default; QT_LOGGING_RULES="brenta.*.debug=true"
// turns them on (one category, e.g. "brenta.tools.debug=true", for less).
Q_DECLARE_LOGGING_CATEGORY(lcTools) // brenta.tools: the tools started and how they ended
Q_DECLARE_LOGGING_CATEGORY(lcFiles) // brenta.files: file operations that failed quietly
Q_DECLARE_LOGGING_CATEGORY(lcIso)   // brenta.iso: what image sessions read
Q_DECLARE_LOGGING_CATEGORY(lcMedia) // brenta.media: drives and their changes
Q_DECLARE_LOGGING_CATEGORY(lcUi)    // brenta.ui: the window and its pages
