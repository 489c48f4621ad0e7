/* Reads the routes that a daemon keeps in shared memory, from C or any language that can call it.
 *
 * The functions are in libhostroute_platform. A reader is used by one thread at a time. Nothing
 * here ends the process or raises an exception. A call that fails returns a status, and
 * hostroute_reader_error() gives the reason. The guarantees of Tovan::BasicRouteTableReader hold.
 */
#ifndef HOSTROUTE_READER_H
#define HOSTROUTE_READER_H

#include <stddef.h>
#include <stdint.h>

/* The naming convention of C. */
/* NOLINTBEGIN(modernize-use-using,readability-identifier-naming) */

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the routes of one VRF and family. */
typedef struct hostroute_reader hostroute_reader;

/* The result of a call. Numbers keep their meaning; new ones may be added. */
enum {
  HOSTROUTE_OK = 0,
  HOSTROUTE_NONE = 1,     /* no such route, no further route, or no change */
  HOSTROUTE_DAMAGED = 2,  /* the entry is damaged; the reader stays usable */
  HOSTROUTE_BUSY = 3,     /* the entry changes too often to be read: try again */
  HOSTROUTE_NO_TABLE = 4, /* the tables do not exist, or cannot be opened */
  HOSTROUTE_INVALID = 5,  /* an argument is invalid */
  HOSTROUTE_FAILED = 6    /* another failure, such as lack of memory */
};

/* The results of hostroute_reader_wait(). */
enum {
  HOSTROUTE_CHANGED = 1, /* routes or next hops changed, or the state */
  HOSTROUTE_REOPENED = 2 /* new tables were opened: earlier results are not valid any more */
};

#define HOSTROUTE_ADDR_BYTES 16
#define HOSTROUTE_INTF_BYTES 128
#define HOSTROUTE_TYPE_BYTES 40

/* A route. Addresses are in network byte order; those of IPv4 take the first four bytes, the others
 * are zero. */
typedef struct hostroute_route {
  uint8_t addr[HOSTROUTE_ADDR_BYTES];
  uint32_t prefix_len;
  uint32_t metric;
  uint32_t preference;
  uint32_t via_count;              /* see hostroute_reader_via() */
  uint64_t fec;                    /* the id of its FEC; 0 is none */
  char type[HOSTROUTE_TYPE_BYTES]; /* such as "attached_" */
} hostroute_route;

/* A next hop. The zero address says that the destination itself is reached on the interface. */
typedef struct hostroute_via {
  uint8_t hop[HOSTROUTE_ADDR_BYTES];
  char intf[HOSTROUTE_INTF_BYTES];
} hostroute_via;

/* The tables as a whole. */
typedef struct hostroute_state {
  uint64_t routes;      /* the number of routes */
  uint8_t loading;      /* the owner is still reading its initial inputs */
  uint8_t initialized;  /* the host-route machine follows its inputs */
  uint8_t synchronized; /* the FIB's own host routes are included */
  uint8_t has_writer;   /* a process keeps the tables up to date */
  uint8_t is_current;   /* the names still lead to these tables */
  uint8_t incomplete;   /* routes or next hops may be missing: the owner was refused memory, or
                         * found damage, and has not set all of them again */
  uint8_t reserved[2];
} hostroute_state;

/* Opens the tables of a VRF that a daemon shares under the name `tables`. `family` is 4 or 6.
 *
 * On HOSTROUTE_OK `*reader` is a reader, which the caller must close. Else it is null, and `error`
 * has the reason, cut to `errorBytes` with its final zero. `error` may be null. */
int hostroute_reader_open(const char* tables, const char* vrf, int family,
                          hostroute_reader** reader, char* error, size_t errorBytes);
/* Closes a reader. Null is allowed. */
void hostroute_reader_close(hostroute_reader* reader);
/* The reason why the last call on this reader failed. Valid until the next call; never null. */
const char* hostroute_reader_error(const hostroute_reader* reader);

int hostroute_reader_state(hostroute_reader* reader, hostroute_state* state);

/* The route with exactly this prefix. `addr` has 4 bytes for IPv4, 16 bytes for IPv6. */
int hostroute_reader_find(hostroute_reader* reader, const uint8_t* addr, uint32_t prefixLen,
                          hostroute_route* route);
/* The route that a packet to `addr` takes. */
int hostroute_reader_match(hostroute_reader* reader, const uint8_t* addr, hostroute_route* route);

/* Begins a walk over the present routes, in no particular order. HOSTROUTE_DAMAGED: some routes
 * cannot be read; the walk visits the others. */
int hostroute_reader_walk(hostroute_reader* reader);
/* The next route of the walk, as it is now; removed routes are skipped. After HOSTROUTE_DAMAGED and
 * HOSTROUTE_BUSY the walk can continue with the next route. HOSTROUTE_NONE: the walk has ended. */
int hostroute_reader_next(hostroute_reader* reader, hostroute_route* route);

/* A next hop of the route that was returned last. `index` is below its via_count. */
int hostroute_reader_via(hostroute_reader* reader, uint32_t index, hostroute_via* via);

/* Waits up to `timeoutMs` milliseconds for a change since the last call returned, or since the
 * tables were opened, and sets `*news`. HOSTROUTE_NONE: there was no change. */
int hostroute_reader_wait(hostroute_reader* reader, uint32_t timeoutMs, int* news);

#ifdef __cplusplus
}
#endif

/* NOLINTEND(modernize-use-using,readability-identifier-naming) */

#endif
