#pragma once

/// Windows' headers of the services that few modules use, included here only, as velWindows.hpp
/// does with the others: those who don't need them should not have to read them.

#include "velox/runtime/velWindows.hpp"

// The Installer.
#include <msi.h>
#include <msiquery.h>
// The DOM of MSXML.
#include <msxml.h>
