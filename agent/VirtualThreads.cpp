#include "agent/VirtualThreads.h"

#include <string.h>

#include "engines/ThreadInfo.h"

namespace {

const char MOUNT_EVENT_ID[] = "com.sun.hotspot.events.VirtualThreadMount";
const char UNMOUNT_EVENT_ID[] = "com.sun.hotspot.events.VirtualThreadUnmount";

// The capability's bit follows can_generate_sampled_object_alloc_events, the last one that
// JDK 17's headers name; counted from the first byte's lowest bit.
int capabilityBit() {
  jvmtiCapabilities marker;
  memset(&marker, 0, sizeof(marker));
  marker.can_generate_sampled_object_alloc_events = 1;
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&marker);
  size_t i = 0;
  while (bytes[i] == 0) {
    i++;
  }
  return static_cast<int>(i) * 8 + __builtin_ctz(bytes[i]) + 1;
}

unsigned char* capabilityByte(jvmtiCapabilities* capabilities) {
  return reinterpret_cast<unsigned char*>(capabilities) + capabilityBit() / 8;
}

unsigned char capabilityMask() { return static_cast<unsigned char>(1u << (capabilityBit() % 8)); }

// The JVM's indices of the mount and unmount extension events; -1 for one it doesn't have.
void findMountEvents(jvmtiEnv* jvmti, jint* mount, jint* unmount) {
  *mount = -1;
  *unmount = -1;
  jint count = 0;
  jvmtiExtensionEventInfo* events = nullptr;
  if (jvmti->GetExtensionEvents(&count, &events) != JVMTI_ERROR_NONE) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    if (events[i].id != nullptr && strcmp(events[i].id, MOUNT_EVENT_ID) == 0) {
      *mount = events[i].extension_event_index;
    }
    if (events[i].id != nullptr && strcmp(events[i].id, UNMOUNT_EVENT_ID) == 0) {
      *unmount = events[i].extension_event_index;
    }
    for (jint p = 0; p < events[i].param_count; p++) {
      jvmti->Deallocate(reinterpret_cast<unsigned char*>(events[i].params[p].name));
    }
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(events[i].params));
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(events[i].id));
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(events[i].short_description));
  }
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(events));
}

}  // namespace

bool VirtualThreads::addCapability(jvmtiEnv* jvmti) {
  jvmtiCapabilities potential;
  memset(&potential, 0, sizeof(potential));
  if (jvmti->GetPotentialCapabilities(&potential) != JVMTI_ERROR_NONE ||
      (*capabilityByte(&potential) & capabilityMask()) == 0) {
    return false;
  }
  jvmtiCapabilities wanted;
  memset(&wanted, 0, sizeof(wanted));
  *capabilityByte(&wanted) |= capabilityMask();
  return jvmti->AddCapabilities(&wanted) == JVMTI_ERROR_NONE;
}

bool VirtualThreads::enableEvents(jvmtiEnv* jvmti) {
  jint mount;
  jint unmount;
  findMountEvents(jvmti, &mount, &unmount);
  if (mount < 0 || unmount < 0) {
    return false;
  }
  // An extension event has its callback set and is switched on like any other event, by its
  // own index. Without any one of the four, a carrier could keep answering for a virtual thread.
  const jint events[] = {mount, unmount, START_EVENT, END_EVENT};
  bool enabled = jvmti->SetExtensionEventCallback(mount, reinterpret_cast<jvmtiExtensionEvent>(mounted)) ==
                     JVMTI_ERROR_NONE &&
                 jvmti->SetExtensionEventCallback(unmount, reinterpret_cast<jvmtiExtensionEvent>(unmounting)) ==
                     JVMTI_ERROR_NONE;
  for (jint event : events) {
    enabled = enabled && jvmti->SetEventNotificationMode(JVMTI_ENABLE, static_cast<jvmtiEvent>(event), nullptr) ==
                             JVMTI_ERROR_NONE;
  }
  if (!enabled) {
    for (jint event : events) {
      jvmti->SetEventNotificationMode(JVMTI_DISABLE, static_cast<jvmtiEvent>(event), nullptr);
    }
    jvmti->SetExtensionEventCallback(mount, nullptr);
    jvmti->SetExtensionEventCallback(unmount, nullptr);
  }
  return enabled;
}

void JNICALL VirtualThreads::started(jvmtiEnv*, JNIEnv*, jthread) { enterVirtualThread(); }

void JNICALL VirtualThreads::ended(jvmtiEnv*, JNIEnv*, jthread) { leaveVirtualThread(); }

void JNICALL VirtualThreads::mounted(jvmtiEnv*, ...) { enterVirtualThread(); }

void JNICALL VirtualThreads::unmounting(jvmtiEnv*, ...) { leaveVirtualThread(); }
