#ifndef KJP_HOTSPOTFLAGS_H
#define KJP_HOTSPOTFLAGS_H

// HotSpot's -XX flags, found through the structure tables that libjvm.so exports for its
// serviceability tools (gHotSpotVMStructs and gHotSpotVMTypes). Nothing of the JVM is called:
// the tables give the flag array, its length, the size of one flag and where its name and value
// lie.

// The address of the value of the flag 'name', or null when this JVM has no such flag or
// exports no tables.
void* findHotSpotFlag(const char* name);

// Sets the boolean flag 'name' to true. Returns whether it is true now (also when it was
// already); false when the flag cannot be found.
bool enableHotSpotBoolFlag(const char* name);

#endif
