#include "snapshot/SocketWriter.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

double secondsSince(const struct timespec& start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec - start.tv_sec) + static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
}

// A client that stops reading fills the socket; the writer, which holds the agent's lock in
// a table update, gives up after one send timeout instead of one per buffer, and leaves the
// socket's own timeout as it found it.
TEST(SocketWriterTest, AClientThatStopsReadingCostsOneSendTimeoutAndTheSocketKeepsItsSettings) {
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  int small = 4096;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  struct timeval before = {7, 0};
  ASSERT_EQ(0, setsockopt(fds[0], SOL_SOCKET, SO_SNDTIMEO, &before, sizeof(before)));

  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  {
    SocketWriter writer(fds[0], 8192, true, 200);
    // Some megabytes: hundreds of buffers, each of which would wait out the timeout again.
    for (int i = 0; i < 1000000; i++) {
      writer.writeInt(i);
    }
    writer.flush();
    EXPECT_TRUE(writer.hasFailed());
  }
  double elapsed = secondsSince(start);
  EXPECT_GE(elapsed, 0.15);
  EXPECT_LT(elapsed, 3.0);

  struct timeval after = {0, 0};
  socklen_t length = sizeof(after);
  ASSERT_EQ(0, getsockopt(fds[0], SOL_SOCKET, SO_SNDTIMEO, &after, &length));
  EXPECT_EQ(7, after.tv_sec);
  close(fds[0]);
  close(fds[1]);
}

TEST(SocketWriterTest, AReadingClientGetsEverything) {
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  {
    SocketWriter writer(fds[0], 16, true, 200);
    for (int i = 0; i < 10; i++) {
      writer.writeInt(i);
    }
    EXPECT_FALSE(writer.hasFailed());
  }
  unsigned char bytes[64];
  ssize_t n = recv(fds[1], bytes, sizeof(bytes), MSG_DONTWAIT);
  ASSERT_EQ(40, n);
  EXPECT_EQ(9, bytes[36]);  // little-endian, as the UI reads it
  close(fds[0]);
  close(fds[1]);
}

}  // namespace
