#include "flow/WebViewController.hpp"

namespace kelvane {

bool WebViewController::runDeviceService(Events, const platform::ScriptMessage&) { return false; }

}  // namespace kelvane
