#ifndef KJP_INSTRUMENTATIONRULES_H
#define KJP_INSTRUMENTATIONRULES_H

// The first two live with the other JVM predicates in the agent core (JVMTI_Agent.cpp);
// they are declared here too for the instrumentation's users.

// Whether natives can be wrapped at all on this JVM: the prefix that lets the prefixed
// native bind to its implementation exists since Java 6, and not on the Mac JVMs.
bool canInstrumentNativeMethods();

// On IBM JVMs the callback class is never redefined; its methods read two flags instead.
bool isFlagUsed();

// Whether the natives of 'className' (internal form) may be wrapped. Some classes are
// left alone because the JVM treats their natives specially.
bool canWrapNativesOfClass(const char* className);

// Whether 'className' (internal form) is code that the probes themselves run: the callback
// class and the call log. A probe there would call itself.
bool isProbePlumbing(const char* className);

#endif
