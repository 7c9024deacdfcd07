#pragma once

class QApplication;

namespace Application {

// Everything start-up does before the first window: names, data directory,
// font with its Linux fall-backs, window icon.
void SetUp(QApplication& application);

} // namespace Application
