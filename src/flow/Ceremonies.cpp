#include "flow/WebViewController.hpp"

namespace kelvane {

bool WebViewController::runCeremony(Events, const platform::ScriptMessage&) { return false; }

}  // namespace kelvane
