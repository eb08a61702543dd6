#pragma once
// Every text the FTP service sends to a client, in one place. The format strings are printf
// formats for strf(). Misspellings and odd spacing are what clients have always seen from us.

namespace orv::ftp_text {

// Control connection.
inline constexpr const char* kGreeting =
    "220 Orvane Server (beta) written by Pel Varnholt and Kem Osterlo, ready.\r\n";
inline constexpr const char* kGoodbyeBanner =
    "221-Orvane Server (beta) written by Pel Varnholt and Kem Osterlo\r\n";
inline constexpr const char* kGoodbye = "221 Connection closed.\r\n";
inline constexpr const char* kOverflow = "421-Command buffer overflow, Kicked off\r\n";

// Dispatcher and login.
inline constexpr const char* kNotUnderstood = "500 Command not understood.\r\n";
inline constexpr const char* kNotImplemented = "502 Command not implemented.\r\n";
inline constexpr const char* kUserOk = "331 User ok need Password.\r\n";
inline constexpr const char* kServerFull = "421 Max server connections, Connection closed.\r\n";
inline constexpr const char* kUserLimitFmt = "421- %s - max (%i) connections in use.\r\n";
inline constexpr const char* kLoginIncorrect = "550 Login incorrect\r\n";
inline constexpr const char* kLoginCountFmt = "230- %i out of %i allowed connections in use.\r\n";
inline constexpr const char* kLoggedInFmt = "230 %s user logged in.\r\n";

// Data connection and transfers.
inline constexpr const char* kPortSyntax = "500 Syntax Error, Command not understood.\r\n";
inline constexpr const char* kPortOk = "200 Port Command OK.\r\n";
inline constexpr const char* kTypeSetFmt = "200 TYPE set to %s\r\n";
inline constexpr const char* kTypeBadFmt = "500 'TYPE %s': command not understood\r\n";
inline constexpr const char* kOpeningBinary = "150 Opening BINARY mode data connection";
inline constexpr const char* kOpeningAscii = "150 Opening ASCII mode data connection";
inline constexpr const char* kTransferComplete = "226 Transfer complete\r\n";
// An upload whose file could not be written to the end (a full disk, a size limit): the client
// must not be told that it was stored.
inline constexpr const char* kWriteFailed =
    "452 Transfer aborted: the file could not be written\r\n";
// A download whose file could not be read to its end (it vanished, shrank or is no regular
// file): the client must not take what it got for the whole file.
inline constexpr const char* kReadFailed = "451 Transfer aborted: the file could not be read\r\n";
// A transfer whose data connection broke or was stopped before all of it moved.
inline constexpr const char* kConnectionAborted = "426 Connection closed; transfer aborted.\r\n";
inline constexpr const char* kNoSuchFile = "550 No such file or directory\r\n";
inline constexpr const char* kPermissionsDenied = "550 Permissions denied\r\n";
inline constexpr const char* kNotAddedToTree =
    "Could not add file to Virtual File System\r\nContact the system administrator.\r\n";

// Listings.
inline constexpr const char* kListDenied = "550 Permission denied\r\n";
inline constexpr const char* kListMissingFmt = "550 %s: No such file or directory.\r\n";

// File-system commands.
inline constexpr const char* kCwdOk = "250 CWD command successful\r\n";
inline constexpr const char* kCwdMissingFmt = "550 %s; No such file or directory\r\n";
inline constexpr const char* kCwdDeniedFmt = "550 %s; Permission denied\r\n";
inline constexpr const char* kPwdFmt = "257 \"%s\" is current directory.\r\n";
inline constexpr const char* kMkdExistsFmt = "550 mkdir: Failed; \"%s\" File already exists\r\n";
inline constexpr const char* kMkdNoParentFmt =
    "550 mkdir: Failed; No such file or directory \"%s\"\r\n";
inline constexpr const char* kMkdDenied = "550 mkdir: Permissions Denied\r\n";
inline constexpr const char* kMkdOkFmt = "257 \"%s\" directory created.\r\n";
inline constexpr const char* kRmdMissingFmt = "550 rmdir: No such file or Directory \"%s\"\r\n";
inline constexpr const char* kRmdNotEmptyFmt =
    "550 rmdir: Failed to remove directory \"%s\"; Not Empty\r\n";
inline constexpr const char* kRmdDeniedFmt = "550 rmdir: Permissions Denied \"%s\"\r\n";
inline constexpr const char* kRmdBusy = "550 rmdir: File Busy\r\n";
inline constexpr const char* kRmdInUseFmt =
    "550 rmdir: Failed to remove directory \"%s\"; in Use\r\n";
inline constexpr const char* kRmdOkFmt = "250 %s directory removed.\r\n";
inline constexpr const char* kDeleFailed = "550 Permissions denied (delete failed)\r\n";
inline constexpr const char* kDeleOk = "250 DELE command ok.\r\n";

} // namespace orv::ftp_text
