#pragma once

#include <QString>

// The two addresses Brenta opens in the user's browser.
namespace Links {

// The product web page, shown and opened by the about dialog and Home.
QString ProductPage();
// The user guide shipped beside the executable (a local file URL), so that
// Help works offline. Falls back to the installed copy under share/brenta.
QString HelpPage();

} // namespace Links
