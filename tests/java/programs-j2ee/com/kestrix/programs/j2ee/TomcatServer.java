package com.kestrix.programs.j2ee;

import jakarta.servlet.DispatcherType;
import jakarta.servlet.ServletException;
import jakarta.servlet.http.HttpServlet;
import jakarta.servlet.http.HttpServletRequest;
import jakarta.servlet.http.HttpServletResponse;
import java.io.IOException;
import java.sql.SQLException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Comparator;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.stream.Stream;
import javax.naming.NamingException;
import org.apache.catalina.Lifecycle;
import org.apache.catalina.Wrapper;
import org.apache.catalina.connector.Connector;
import org.apache.catalina.core.StandardContext;
import org.apache.catalina.startup.Tomcat;
import org.apache.tomcat.util.descriptor.web.ContextEnvironment;

/**
 * Tomcat 10 (jakarta.servlet) on a free port of the loopback address serving the URIs of
 * Workload; its JNDI lookups go to Tomcat's own naming, "java:comp/env/greeting" an environment
 * entry of the context. Prints "port N", stops when standard input ends.
 */
public final class TomcatServer {
    static final String GREETING_NAME = "java:comp/env/" + Workload.GREETING;

    /**
     * /a: a JNDI lookup, the prepared statement, and an include of /part. It overrides the
     * service method, which gives its requests a call path of their own: the requests of servlets
     * that only override doGet share HttpServlet's, and what they do cannot be told apart.
     */
    static final class ItemServlet extends HttpServlet {
        private static final long serialVersionUID = 1L;
        private final transient Workload myWorkload;
        private final AtomicInteger myNext = new AtomicInteger();

        ItemServlet(Workload workload) {
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
            response.setContentType("text/plain");
            try {
                Workload.lookup(null, GREETING_NAME);
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
    static final class Page extends HttpServlet implements jakarta.servlet.jsp.HttpJspPage {
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
        Path base = Files.createTempDirectory("kjp-tomcat-");
        Tomcat tomcat = new Tomcat();
        tomcat.setBaseDir(base.toString());
        Connector connector = new Connector();
        connector.setPort(0);
        connector.setProperty("address", "127.0.0.1");
        tomcat.setConnector(connector);
        tomcat.enableNaming();
        // Tomcat.addContext would scan the servlet's annotations, which needs jakarta.annotation,
        // a jar Debian's embedded Tomcat leaves out; this context is declared in code instead.
        StandardContext context = new StandardContext();
        context.setName("");
        context.setPath("");
        context.setDocBase(Files.createDirectories(base.resolve("docs")).toString());
        context.addLifecycleListener(event -> {
            if (event.getType().equals(Lifecycle.CONFIGURE_START_EVENT)) {
                context.setConfigured(true);
            }
        });
        tomcat.getHost().addChild(context);
        ContextEnvironment greeting = new ContextEnvironment();
        greeting.setName(Workload.GREETING);
        greeting.setType("java.lang.String");
        greeting.setValue("hello");
        context.getNamingResources().addEnvironment(greeting);
        Tomcat.addServlet(context, "item", new ItemServlet(workload)).addMapping("/a");
        Tomcat.addServlet(context, "count", new CountServlet(workload)).addMapping("/b");
        Tomcat.addServlet(context, "page", new Page()).addMapping("/page.jsp");
        Wrapper plain = Tomcat.addServlet(context, "plain", new PlainServlet(workload));
        for (String uri : new String[] {"/q", "/fail", "/slow", "/part", "/view"}) {
            plain.addMapping(uri);
        }
        tomcat.start();
        try {
            Workload.serveUntilStopped(connector.getLocalPort());
        } finally {
            tomcat.stop();
            tomcat.destroy();
            workload.close();
            try (Stream<Path> files = Files.walk(base)) {
                files.sorted(Comparator.reverseOrder()).forEach(f -> f.toFile().delete());
            }
        }
    }
}
