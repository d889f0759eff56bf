module kjptest.mod {
  requires java.sql;
  exports kjptest.mod;
}
