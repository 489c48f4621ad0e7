// What the kernel's refusal of a host route means.
#pragma once

#include <cerrno>

namespace Linux {

/// Whether the kernel has too little memory or room at the moment. Its tables are unchanged then.
inline bool isShortage(int error) {
  return error == ENOBUFS || error == ENOMEM || error == ENOSPC || error == EAGAIN ||
         error == EBUSY;
}

/// Whether a change of the interface or of its addresses may help.
inline bool dependsOnLink(int error) {
  return error == ENODEV || error == ENETDOWN || error == ENETUNREACH || error == EHOSTUNREACH ||
         error == EINVAL || error == EACCES || error == EADDRNOTAVAIL;
}

/// Whether a route that should be deleted does not exist.
inline bool isAbsent(int error) {
  return error == ESRCH || error == ENOENT;
}

/// Times of retries are multiples of this, in seconds, so that many routes are retried at once.
inline constexpr double kRetryTick = 0.1;

/// The seconds before the second attempt.
inline double firstRetryDelay(int error) {
  if (isShortage(error) || error == EIO) return kRetryTick;
  return dependsOnLink(error) ? 5 : 1;
}

}  // namespace Linux
