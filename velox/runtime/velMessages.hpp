#pragma once

/// The texts of the library that are meant to be translated, in one place. Texts that are fixed
/// stand beside the code that raises them.
namespace velox::messages {

// General.
inline constexpr const char* seIncorrectParameters = "Incorrect parameters";
inline constexpr const char* seClassCannotBeCreated = "Class cannot be created without arguments";

// Operating-system errors: code, then the system's own text for it.
inline constexpr const char* seOSError = "System Error. Code: %u. %s";
inline constexpr const char* seOleError = "COM Error. Code: 0x%08X. %s";
inline constexpr const char* seUnknownOSError = "A call to an OS function failed";
inline constexpr const char* seOutOfMemory = "Out of memory";
inline constexpr const char* seDivByZero = "Division by zero";
inline constexpr const char* seMethodIsNotAssigned = "Method is not assigned";

// Values and text.
inline constexpr const char* seInvalidDigit = "Invalid digit value \"%s\"";
inline constexpr const char* seYes = "Yes";
inline constexpr const char* seNo = "No";

// Dates.
inline constexpr const char* seInvalidDateTime = "Invalid date or time";

// Streams.
inline constexpr const char* seStreamRead = "Stream read error";
inline constexpr const char* seStreamWrite = "Stream write error";
inline constexpr const char* seStreamSeek = "Stream cannot be positioned before its beginning";
inline constexpr const char* seStreamTooLarge = "Stream in memory cannot exceed 2 GiB";
inline constexpr const char* seCannotOpenFile = "Cannot open file \"%s\". %s";
inline constexpr const char* seCannotCreateFile = "Cannot create file \"%s\". %s";

// Registry; each names the value or key.
inline constexpr const char* seRegistryGetDataFailed = "Cannot read registry data \"%s\"";
inline constexpr const char* seRegistrySetDataFailed = "Cannot write registry data \"%s\"";
inline constexpr const char* seRegistryInvalidType = "Registry data \"%s\" have another type";
inline constexpr const char* seRegistryCreateFailed = "Cannot create registry key \"%s\"";

// Containers.
inline constexpr const char* seInvalidIndex = "Invalid index";
inline constexpr const char* seObjectIsNull = "Object cannot be null";
inline constexpr const char* seCannotMoveElementInSortedArray =
    "Cannot move element in sorted array";
inline constexpr const char* seBufferHaveNotBeenAllocated = "Buffer have not been allocated";
inline constexpr const char* seCannotSetSize = "Cannot set size";
inline constexpr const char* seBufferIsTooSmall = "Buffer is too small for its items";
inline constexpr const char* seBufferIsDamaged = "Shared buffer is damaged";

// Process and module information.
inline constexpr const char* seVersionRootMissing = "Root block of version resource does not exist";
inline constexpr const char* seFileNameIsEmpty = "File name cannot be empty";

// The Windows Installer.
inline constexpr const char* seViewIsNotOpened = "MSI View is not opened";
inline constexpr const char* seViewIsOpenedAlready =
    "Cannot open MSI View, because it is opened already.";

// Security.
inline constexpr const char* seAccountNameIsEmpty = "Account name must not be empty";
inline constexpr const char* seInvalidSid = "Invalid SID specified";
inline constexpr const char* seSecurityIdentifierIsEmpty = "Security identifier is empty";
inline constexpr const char* seCannotBuildAce = "Cannot build ace - security identifier is absent";
inline constexpr const char* seIncorrectAceType = "Incorrect access control entry type";
inline constexpr const char* seInvalidAcl = "Invalid ACL specified";
inline constexpr const char* seAclTooLarge = "Access control list cannot exceed 65535 bytes";
inline constexpr const char* seInvalidSecurityDescriptor = "Security descriptor is invalid";

// Asynchronous execution.
inline constexpr const char* seCallIsBusy = "Call is busy";
inline constexpr const char* seOperationOnActiveTask = "Cannot perform operation on active task";
inline constexpr const char* seInvalidEvent = "Invalid event specified";
inline constexpr const char* seInvalidWindow = "Invalid window handle specified";

// Compression.
inline constexpr const char* sTargetBufferTooSmall = "ZLib error: target buffer may be too small";
inline constexpr const char* sInvalidStreamOp = "Invalid stream operation";

// Codecs.
inline constexpr const char* seAssertionFailed = "Assertion failure";
inline constexpr const char* seSizeMustBeEven = "Size must be 2 * n";
// Cipher.
inline constexpr const char* seIncorrectSubstitutionTable = "Incorrect substitution table";

// Memory images as text; seLineError closes with one of the others.
inline constexpr const char* seIncorrectRecordLength = "Incorrect record length";
inline constexpr const char* seIncorrectRecordChecksum = "Incorrect record checksum";
inline constexpr const char* seIncorrectRecordType = "Incorrect record type";
inline constexpr const char* seColonExpected = "Col %d - \":\" Expected";
inline constexpr const char* seHexByteExpected = "Col %d - Hex byte expected";
inline constexpr const char* seLineError = "Line %d : %s";
inline constexpr const char* seImageTooLarge = "Image cannot exceed 2 GiB";

// Channels.
inline constexpr const char* seActiveChannel = "Cannot change active channel";
inline constexpr const char* sePropertyOfActiveOperation =
    "Cannot change property of active operation";
inline constexpr const char* seSpecifySizeAndBuffer =
    "Specify size and buffer for operation. Cannot perform operation.";
inline constexpr const char* seSpecifyChannel =
    "Specify channel for operation. Cannot perform operation.";
inline constexpr const char* seChannelIsNotActive =
    "Channel is not active. Cannot perform operation.";
inline constexpr const char* seSpecifyMemoryName = "Specify name of shared memory.";
inline constexpr const char* seSpecifyMemorySize = "Specify size of shared memory.";

// Settings and connections.
inline constexpr const char* seIncorrectValueFor = "Incorrect value for %s";
inline constexpr const char* seTransferNotFinished = "Transfer of the connection is not finished";

// Lists of addresses.
inline constexpr const char* seInvalidAddress = "Invalid address \"%s\"";
inline constexpr const char* seNotTheSameNet =
    "Addresses in range \"%s\" are not within the same net";
inline constexpr const char* seInvalidAddressMask = "Invalid address mask \"%s\"";
inline constexpr const char* seInvalidSubnetMask = "Invalid subnet mask \"%s\"";

}  // namespace velox::messages
