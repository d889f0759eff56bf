package com.kestrix.programs;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Proxy;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;

/**
 * Runs known numbers of SQL statements against a database, each kind from a method of its own,
 * so that the J2EE records can be checked by text, count and call path. Arguments: the JDBC URL
 * (an in-memory H2 database, or a PostgreSQL server), how often the prepared query runs, how
 * often the plain query runs.
 */
public final class JdbcStatements {
    static final String PREPARED = "SELECT name FROM item WHERE id = ?";
    static final String PLAIN = "SELECT COUNT(*) FROM item";
    static final String FAILING = "SELECT * FROM no_such_table";
    static final String AFTER_FAILURE = "SELECT MAX(id) FROM item";
    static final String REFUSED_IN_WRAPPER = "SELECT no_such_column FROM item";
    static final String FALLBACK = "SELECT MIN(id) FROM item";

    private JdbcStatements() {
    }

    public static void main(String[] args) throws Exception {
        int prepared = Integer.parseInt(args[1]);
        int plain = Integer.parseInt(args[2]);
        try (Connection connection = DriverManager.getConnection(args[0])) {
            createTable(connection);
            long sum = runPrepared(connection, prepared) + runPlain(connection, plain);
            String failure = runFailing(connection);
            sum += runAfterFailure(connection) + runThroughWrapper(connection);
            System.out.println("sum " + sum + ", failure " + failure);
        }
    }

    static void createTable(Connection connection) throws SQLException {
        try (Statement statement = connection.createStatement()) {
            // A server keeps the table of an earlier run.
            statement.execute("DROP TABLE IF EXISTS item");
            statement.execute("CREATE TABLE item (id INT PRIMARY KEY, name VARCHAR(20))");
            for (int i = 0; i < 10; i++) {
                statement.executeUpdate("INSERT INTO item VALUES (" + i + ", 'item" + i + "')");
            }
        }
    }

    static long runPrepared(Connection connection, int times) throws SQLException {
        long found = 0;
        try (PreparedStatement statement = connection.prepareStatement(PREPARED)) {
            for (int i = 0; i < times; i++) {
                statement.setInt(1, i % 10);
                try (ResultSet result = statement.executeQuery()) {
                    found += result.next() ? result.getString(1).length() : 0;
                }
            }
        }
        return found;
    }

    static long runPlain(Connection connection, int times) throws SQLException {
        long count = 0;
        try (Statement statement = connection.createStatement()) {
            for (int i = 0; i < times; i++) {
                try (ResultSet result = statement.executeQuery(PLAIN)) {
                    result.next();
                    count += result.getLong(1);
                }
            }
        }
        return count;
    }

    /** A statement the database refuses: its SQLException is caught here, two frames above the driver. */
    static String runFailing(Connection connection) {
        try {
            return queryFailing(connection);
        } catch (SQLException e) {
            return e.getSQLState();
        }
    }

    static String queryFailing(Connection connection) throws SQLException {
        try (Statement statement = connection.createStatement()) {
            statement.executeQuery(FAILING);
            return "none";
        }
    }

    static long runAfterFailure(Connection connection) throws SQLException {
        try (Statement statement = connection.createStatement(); ResultSet result = statement.executeQuery(AFTER_FAILURE)) {
            result.next();
            return result.getLong(1);
        }
    }

    /**
     * Through a wrapper, as connection pools hand out statements: the wrapper catches the
     * driver's SQLException for a refused query inside its own executeQuery and runs a fallback
     * query in its place, at the same driver method.
     */
    static long runThroughWrapper(Connection connection) throws SQLException {
        try (Statement real = connection.createStatement()) {
            try (ResultSet result = withFallback(real).executeQuery(REFUSED_IN_WRAPPER)) {
                result.next();
                return result.getLong(1);
            }
        }
    }

    static Statement withFallback(Statement real) {
        return (Statement) Proxy.newProxyInstance(JdbcStatements.class.getClassLoader(), new Class<?>[] {Statement.class},
                (proxy, method, args) -> {
                    try {
                        return method.invoke(real, args);
                    } catch (InvocationTargetException e) {
                        if (method.getName().equals("executeQuery") && e.getCause() instanceof SQLException) {
                            return real.executeQuery(FALLBACK);
                        }
                        throw e.getCause();
                    }
                });
    }
}
