package kjptest.mod;

public class Api {
  public static int answer() {
    return 42;
  }
}
