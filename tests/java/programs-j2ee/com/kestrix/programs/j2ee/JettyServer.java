package com.kestrix.programs.j2ee;

import java.io.IOException;
import java.sql.SQLException;
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
    /**
     * /a: a JNDI lookup, the prepared statement, and an include of /part. It overrides the
     * service method, which gives its requests a call path of their own: the requests of servlets
     * that only override doGet share HttpServlet's, and what they do cannot be told apart.
     */
    static final class ItemServlet extends HttpServlet {
        private static final long serialVersionUID = 1L;
        private final transient Workload myWorkload;
        private final Hashtable<String, String> myJndi;
        private final AtomicInteger myNext = new AtomicInteger();

        ItemServlet(Workload workload, Hashtable<String, String> jndi) {
            myWorkload = workload;
            myJndi = jndi;
        }

        @Override
        protected void service(HttpServletRequest request, HttpServletResponse response)
                throws ServletException, IOException {
            super.service(request, response);
        }

        @Override
        protected void doGet(HttpServletRequest request, HttpServletResponse response)
                throws ServletException, IOException {
            response.setContentType("text/plain");
            try {
                Workload.lookup(myJndi, Workload.GREETING);
                response.getWriter().println(myWorkload.item(myNext.incrementAndGet()));
            } catch (SQLException | NamingException e) {
                throw new ServletException(e);
            }
            request.getRequestDispatcher("/part").include(request, response);
        }
    }

    /** /b: the plain statement, then a forward to /view; a call path of its own as /a has. */
    static final class CountServlet extends HttpServlet {
        private static final long serialVersionUID = 1L;
        private final transient Workload myWorkload;

        CountServlet(Workload workload) {
            myWorkload = workload;
        }

        @Override
        protected void service(HttpServletRequest request, HttpServletResponse response)
                throws ServletException, IOException {
            super.service(request, response);
        }

        @Override
        protected void doGet(HttpServletRequest request, HttpServletResponse response)
                throws ServletException, IOException {
            try {
                request.setAttribute("count", myWorkload.count());
            } catch (SQLException e) {
                throw new ServletException(e);
            }
            request.getServletContext().getRequestDispatcher("/view").forward(request, response);
        }
    }

    /**
     * /q runs the prepared statement alone, /fail throws, /slow writes to a client that leaves;
     * /part and /view are the fragments.
     */
    static final class PlainServlet extends HttpServlet {
        private static final long serialVersionUID = 1L;
        private final transient Workload myWorkload;
        private final AtomicInteger myNext = new AtomicInteger();

        PlainServlet(Workload workload) {
            myWorkload = workload;
        }

        @Override
        protected void doGet(HttpServletRequest request, HttpServletResponse response)
                throws ServletException, IOException {
            response.setContentType("text/plain");
            if (request.getDispatcherType() != DispatcherType.REQUEST) {
                response.getWriter().println("part of " + request.getRequestURI());
            } else if (request.getServletPath().equals("/fail")) {
                throw new ServletException("failing on purpose");
            } else if (request.getServletPath().equals("/slow")) {
                Workload.writeToLeavingClient(response.getOutputStream());
            } else {
                try {
                    response.getWriter().println(myWorkload.item(myNext.incrementAndGet()));
                } catch (SQLException e) {
                    throw new ServletException(e);
                }
            }
        }
    }

    /**
     * /page.jsp: a page as the JSP compiler leaves it, its content in _jspService, which the
     * service method calls (written by hand: running the JSP compiler needs jars Debian leaves out).
     */
    static final class Page extends HttpServlet implements javax.servlet.jsp.HttpJspPage {
        private static final long serialVersionUID = 1L;

        @Override
        public void jspInit() {
        }

        @Override
        public void jspDestroy() {
        }

        @Override
        protected void service(HttpServletRequest request, HttpServletResponse response)
                throws ServletException, IOException {
            _jspService(request, response);
        }

        @Override
        public void _jspService(HttpServletRequest request, HttpServletResponse response)
                throws ServletException, IOException {
            response.setContentType("text/html");
            response.getWriter().println("<p>page</p>");
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
        context.addServlet(new ServletHolder(new ItemServlet(workload, jndi)), "/a");
        context.addServlet(new ServletHolder(new CountServlet(workload)), "/b");
        context.addServlet(new ServletHolder(new Page()), "/page.jsp");
        ServletHolder plain = new ServletHolder(new PlainServlet(workload));
        for (String uri : new String[] {"/q", "/fail", "/slow", "/part", "/view"}) {
            context.addServlet(plain, uri);
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
