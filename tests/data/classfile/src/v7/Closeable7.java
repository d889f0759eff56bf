package kjptest;

// An interface whose method matches the J2EE catalogue: interfaces are never candidates.
public interface Closeable7 {
  void close();
}
