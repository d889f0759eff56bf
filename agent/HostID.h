#ifndef KJP_HOST_ID_H
#define KJP_HOST_ID_H

#include "agent/KString.h"

// Texts that identify this machine for the licence check. Both are computed afresh on every
// call from what the system keeps on disk, so they are the same in every process on the
// machine and across restarts.

// The systemd/D-Bus machine id where the system has one, else getHostID2.
KString getHostID();
// The host name and the MAC address of the machine's chosen network interface, as
// "name/aa:bb:cc:dd:ee:ff", or the host name alone when no interface has an address.
KString getHostID2();

// The MAC address of the first interface under 'netClassDir' (laid out like /sys/class/net)
// that isn't loopback and has a non-zero address, in lower-case "aa:bb:cc:dd:ee:ff" form.
// Interfaces backed by a device (a "device" entry) come before virtual ones, and among equals
// the name decides, so the choice doesn't depend on the directory's order. False if none.
bool readMacAddress(const char* netClassDir, char* out, int outSize);

// The first line of a machine-id file with surrounding blanks removed; false if the file is
// missing or holds nothing but blanks.
bool readMachineID(const char* path, char* out, int outSize);

#endif
