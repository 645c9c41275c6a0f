// The URL-loading error domain, its codes, and the details its errors carry.
#pragma once

namespace platform {

inline constexpr const char* kURLErrorDomain = "URLErrorDomain";
inline constexpr const char* kURLErrorFailingURLStringKey = "URLErrorFailingURLStringKey";
// Status of an HTTP answer that ended a download.
inline constexpr const char* kURLErrorHTTPStatusKey = "URLErrorHTTPStatus";

inline constexpr int kURLErrorUnknown = -1;
inline constexpr int kURLErrorCancelled = -999;
inline constexpr int kURLErrorBadURL = -1000;
inline constexpr int kURLErrorTimedOut = -1001;
inline constexpr int kURLErrorUnsupportedURL = -1002;
inline constexpr int kURLErrorCannotFindHost = -1003;
inline constexpr int kURLErrorCannotConnectToHost = -1004;
inline constexpr int kURLErrorNetworkConnectionLost = -1005;
inline constexpr int kURLErrorHTTPTooManyRedirects = -1007;
inline constexpr int kURLErrorBadServerResponse = -1011;
inline constexpr int kURLErrorUserCancelledAuthentication = -1012;
inline constexpr int kURLErrorFileDoesNotExist = -1100;
inline constexpr int kURLErrorFileIsDirectory = -1101;
inline constexpr int kURLErrorNoPermissionsToReadFile = -1102;
inline constexpr int kURLErrorSecureConnectionFailed = -1200;
inline constexpr int kURLErrorServerCertificateUntrusted = -1202;
inline constexpr int kURLErrorCannotCreateFile = -3000;
inline constexpr int kURLErrorCannotOpenFile = -3001;
inline constexpr int kURLErrorCannotWriteToFile = -3003;
inline constexpr int kURLErrorCannotResumeDownload = -3006;

}  // namespace platform
