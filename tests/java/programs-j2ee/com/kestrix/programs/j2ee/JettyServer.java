package com.kestrix.programs.j2ee;

import java.io.IOException;
import java.util.Hashtable;
import java.util.concurrent.atomic.AtomicInteger;
import javax.naming.NamingException;
import javax.servlet.DispatcherType;
import javax.servlet.ServletException;
import javax.servlet.http.HttpServlet;
import javax.servlet.http.HttpServletRequest;
import javax.servlet.http.HttpServletResponse;
import org.eclipse.jetty.server.Server;
import org.eclipse.jetty.server.ServerConnector;
import org.eclipse.jetty.servlet.ServletContextHandler;
import org.eclipse.jetty.servlet.ServletHolder;

/**
 * Jetty 9 (javax.servlet) on a free port of the loopback address serving the URIs of
 * Workload; its JNDI lookups go to the JDK's RMI registry. Prints "port N", stops when standard
 * input ends.
 */
public final class JettyServer {
    /** The servlet of every URI; a forwarded or included request writes the fragment. */
    static final class AppServlet extends HttpServlet {
        private static final long serialVersionUID = 1L;
        private final transient Workload myWorkload;
        private final Hashtable<String, String> myJndi;
        private final AtomicInteger myNext = new AtomicInteger();

        AppServlet(Workload workload, Hashtable<String, String> jndi) {
            myWorkload = workload;
            myJndi = jndi;
        }

        @Override
        protected void doGet(HttpServletRequest request, HttpServletResponse response)
                throws ServletException, IOException {
            response.setContentType("text/plain");
            if (request.getDispatcherType() != DispatcherType.REQUEST) {
                response.getWriter().println("part of " + request.getRequestURI());
                return;
            }
            try {
                switch (request.getServletPath()) {
                    case "/a":
                        Workload.lookup(myJndi, Workload.GREETING);
                        response.getWriter().println(myWorkload.item(myNext.incrementAndGet()));
                        request.getRequestDispatcher("/part").include(request, response);
                        break;
                    case "/b":
                        long n = myWorkload.count();
                        request.setAttribute("count", n);
                        request.getServletContext().getRequestDispatcher("/view").forward(request, response);
                        break;
                    case "/q":
                        response.getWriter().println(myWorkload.item(myNext.incrementAndGet()));
                        break;
                    case "/fail":
                        throw new ServletException("failing on purpose");
                    default:
                        response.sendError(404);
                }
            } catch (java.sql.SQLException | NamingException e) {
                throw new ServletException(e);
            }
        }
    }

    public static void main(String[] args) throws Exception {
        Workload workload = new Workload();
        Hashtable<String, String> jndi = Workload.startRegistry();
        Server server = new Server();
        ServerConnector connector = new ServerConnector(server);
        connector.setHost("127.0.0.1");
        connector.setPort(0);
        server.addConnector(connector);
        ServletContextHandler context = new ServletContextHandler();
        context.setContextPath("/");
        ServletHolder holder = new ServletHolder(new AppServlet(workload, jndi));
        for (String uri : new String[] {"/a", "/b", "/q", "/fail", "/part", "/view"}) {
            context.addServlet(holder, uri);
        }
        server.setHandler(context);
        server.start();
        try {
            Workload.serveUntilStopped(connector.getLocalPort());
        } finally {
            server.stop();
            workload.close();
        }
        // The registry's threads would keep the JVM alive.
        System.exit(0);
    }
}
