// Owns which characters beyond ASCII the operator's locale can show.
#pragma once

namespace kelotlsctl {

/// "→", or "->" where the locale has no UTF-8.
const char* arrow();

/// "…", or "..." where the locale has no UTF-8.
const char* ellipsis();

}  // namespace kelotlsctl
