#include "core/logging.h"

// Messages below a warning are off unless the logging rules turn them on.
Q_LOGGING_CATEGORY(lcTools, "brenta.tools", QtWarningMsg)
Q_LOGGING_CATEGORY(lcFiles, "brenta.files", QtWarningMsg)
Q_LOGGING_CATEGORY(lcIso, "brenta.iso", QtWarningMsg)
Q_LOGGING_CATEGORY(lcMedia, "brenta.media", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUi, "brenta.ui", QtWarningMsg)
