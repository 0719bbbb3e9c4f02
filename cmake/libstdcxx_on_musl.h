/* Included before everything else when GCC's C++ headers meet musl (script/device): Debian has
 * configured them for glibc, so what they expect of it is undone or named here. Only the parts that
 * live in headers are ever used; nothing of the C++ runtime library is linked. */
#ifndef CLOUD_LIBSTDCXX_ON_MUSL_H
#define CLOUD_LIBSTDCXX_ON_MUSL_H

#define __GLIBC_PREREQ(major, minor) 0
#include <bits/c++config.h>

/* Calls that this musl does not have. */
#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#undef _GLIBCXX_USE_PTHREAD_MUTEX_CLOCKLOCK
#undef _GLIBCXX_USE_PTHREAD_RWLOCK_CLOCKLOCK

/* Types and character classes of glibc's headers. */
#define __locale_t locale_t
#define _ISupper (1 << 0)
#define _ISlower (1 << 1)
#define _ISalpha (1 << 2)
#define _ISdigit (1 << 3)
#define _ISxdigit (1 << 4)
#define _ISspace (1 << 5)
#define _ISprint (1 << 6)
#define _ISblank (1 << 8)
#define _IScntrl (1 << 9)
#define _ISpunct (1 << 10)

#endif
