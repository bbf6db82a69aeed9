#pragma once

/// Windows' headers of services that few modules use. No other file of the library includes them;
/// those that most modules use are in velWindows.hpp.

#include "velox/runtime/velWindows.hpp"

// The Installer.
#include <msi.h>
#include <msiquery.h>
// The DOM of MSXML.
#include <msxml.h>
