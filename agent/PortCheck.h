#ifndef KJP_AGENT_PORTCHECK_H
#define KJP_AGENT_PORTCHECK_H

// Whether another socket of this machine already listens where the agent is asked to: on
// 'port' of 'host' (an address or a name), of the loopback address with 'onlyLocal', else of
// every address. Binds a socket there, as the runtime's listening socket will, and closes it
// at once. Only a port in use gives false: what can't be checked (an unknown host, a machine
// without IPv6) is left to the runtime, which says what is wrong when it opens its socket.
bool isPortFreeToListen(const char* host, bool onlyLocal, int port);

#endif
