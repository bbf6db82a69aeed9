#pragma once

/// Includes Windows' own headers, the same way everywhere. Only this file does, and
/// velWindowsServices.hpp for services that few modules use. What they rename by macro, and the
/// library names itself, gets its own name back.

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif

#include <winsock2.h>
#include <ws2tcpip.h>
// Winsock comes first: windows.h would bring its predecessor.
#include <windows.h>
// COM's base and CryptoAPI, which windows.h leaves out here.
#include <objbase.h>
// Texts of security identifiers.
#include <sddl.h>
// Snapshots of processes and threads; version resources.
#include <tlhelp32.h>
#include <wincrypt.h>
#include <winver.h>

#undef CreateEvent
#undef CreateMutex
#undef CreateProcess
#undef FindFirstFile
#undef FormatMessage
#undef GetClassName
#undef GetMessage
#undef GetObject
#undef InterlockedAnd64
#undef InterlockedCompareExchange64
#undef InterlockedDecrement64
#undef InterlockedExchange64
#undef InterlockedExchangeAdd64
#undef InterlockedIncrement64
#undef InterlockedOr64
#undef SendMessage
#undef SetPort
#undef Yield
