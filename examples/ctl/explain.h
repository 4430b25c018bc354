// Why the service's trust checks refuse a path, in plain words. The checks answer yes or no and are what counts; this
// looks at the same things again for the person who has to mend them.
#pragma once

#include <string>
#include <vector>

#include <security.h>

namespace app {

// Each reason that can be seen for check_path's refusal of this path; at least one.
std::vector<std::string> explain_refusal(const std::wstring &path, host_service::PathKind kind);

} // namespace app
