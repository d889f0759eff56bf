#include "agent/VirtualThreads.h"

#include <string.h>

#include "engines/ThreadInfo.h"

namespace {

const char MOUNT_EVENT_ID[] = "com.sun.hotspot.events.VirtualThreadMount";
const char UNMOUNT_EVENT_ID[] = "com.sun.hotspot.events.VirtualThreadUnmount";

// Bit number (from the first byte's lowest bit) of the last capability the headers name.
int lastNamedCapabilityBit() {
  jvmtiCapabilities marker;
  memset(&marker, 0, sizeof(marker));
  marker.can_generate_sampled_object_alloc_events = 1;
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&marker);
  for (size_t i = 0; i < sizeof(marker); i++) {
    if (bytes[i] != 0) {
      return static_cast<int>(i) * 8 + __builtin_ctz(bytes[i]);
    }
  }
  return -1;
}

void freeExtensionEvents(jvmtiEnv* jvmti, jint count, jvmtiExtensionEventInfo* events) {
  for (jint i = 0; i < count; i++) {
    for (jint p = 0; p < events[i].param_count; p++) {
      jvmti->Deallocate(reinterpret_cast<unsigned char*>(events[i].params[p].name));
    }
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(events[i].params));
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(events[i].id));
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(events[i].short_description));
  }
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(events));
}

// The JVM's index of the extension event with this id, or -1.
jint findExtensionEvent(jvmtiEnv* jvmti, const char* id) {
  jint count = 0;
  jvmtiExtensionEventInfo* events = nullptr;
  if (jvmti->GetExtensionEvents(&count, &events) != JVMTI_ERROR_NONE) {
    return -1;
  }
  jint index = -1;
  for (jint i = 0; i < count; i++) {
    if (events[i].id != nullptr && strcmp(events[i].id, id) == 0) {
      index = events[i].extension_event_index;
    }
  }
  freeExtensionEvents(jvmti, count, events);
  return index;
}

}  // namespace

void VirtualThreads::setCapabilityBit(jvmtiCapabilities* capabilities) {
  int bit = lastNamedCapabilityBit() + 1;
  reinterpret_cast<unsigned char*>(capabilities)[bit / 8] |= static_cast<unsigned char>(1u << (bit % 8));
}

bool VirtualThreads::hasCapabilityBit(const jvmtiCapabilities& capabilities) {
  int bit = lastNamedCapabilityBit() + 1;
  return (reinterpret_cast<const unsigned char*>(&capabilities)[bit / 8] >> (bit % 8) & 1) != 0;
}

bool VirtualThreads::addCapability(jvmtiEnv* jvmti) {
  jvmtiCapabilities potential;
  memset(&potential, 0, sizeof(potential));
  if (jvmti->GetPotentialCapabilities(&potential) != JVMTI_ERROR_NONE || !hasCapabilityBit(potential)) {
    return false;
  }
  jvmtiCapabilities wanted;
  memset(&wanted, 0, sizeof(wanted));
  setCapabilityBit(&wanted);
  return jvmti->AddCapabilities(&wanted) == JVMTI_ERROR_NONE;
}

bool VirtualThreads::enableEvents(jvmtiEnv* jvmti) {
  jint mount = findExtensionEvent(jvmti, MOUNT_EVENT_ID);
  jint unmount = findExtensionEvent(jvmti, UNMOUNT_EVENT_ID);
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
