// The System V keys of the host's six shared segments.
//
// The keys are fixed: every process of the host that uses the library meets
// the others through them. CWorkMessages derives from QVshmKeysBase so that
// the enum reads as its own (CWorkMessages::cstWMctlSHMKey).
#ifndef QVSHMKEYS_H
#define QVSHMKEYS_H

struct QVshmKeysBase {
    enum QVshmKeys {
        cstWMNamesSHMKey = 1048,   // Names Table: message types
        cstWMQueuesSHMKey = 1049,  // Queues: control slots (replaced on growth)
        cstWMctlSHMKey = 1050,     // Controls: handles, counters, the mutex
        cstWMPRListSHMKey = 1051,  // PRLs: receiver registry (replaced on growth)
        cstWMUIDListSHMKey = 1052, // Unique IDs: processes
        cstWMDDSATSHMKey = 1053,   // SAT: dependent-data slot bitmap
        cstNetMonKey = 1080        // reserved; no segment of this library
    };
};

#endif
