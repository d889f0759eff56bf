package com.kestrix.tools.kjp;

import java.io.IOException;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * A flame graph as one self-contained HTML page: data, style and script inline, nothing loaded
 * from the network, so the file can be mailed or archived and still opens. The root is at the
 * bottom; each frame is as wide as its own value plus its callees', so per-thread graphs get a
 * thread level above the root. Click a frame to zoom, search to highlight.
 */
final class FlameGraph {
    /** Node kinds in the page's data. */
    private static final int KIND_ROOT = 0;
    private static final int KIND_THREAD = 1;
    private static final int KIND_METHOD = 2;
    /** A J2EE event's frame (kjp flame --j2ee). */
    private static final int KIND_J2EE = 3;

    private final Profile myProfile;
    private final Collapsed.Value myValue;
    private final double myMinFraction;
    private final List<String> myNames = new ArrayList<>();
    private final Map<String, Integer> myNameIndex = new HashMap<>();
    /** Per node: parent, name, kind, self, width, count. */
    private long[] myNodes = new long[6 * 1024];
    private int myNodeCount;
    private int myOmitted;

    FlameGraph(Profile profile, Collapsed.Value value, double minPercent) {
        myProfile = profile;
        myValue = value;
        myMinFraction = minPercent / 100.0;
    }

    /**
     * The package of the program's main class, with its dot ("com.acme.shop."): frames under it
     * are the application's own, coloured apart from libraries and the JDK. "" when the main
     * class has no package, null when the command names none (a jar, say).
     */
    String applicationPackage() {
        String command = myProfile.property("sun.java.command");
        if (command == null || command.isBlank()) {
            return null;
        }
        String main = command.strip().split("\\s+")[0];
        if (main.endsWith(".jar") || main.contains("/")) {
            return null;
        }
        int dot = main.lastIndexOf('.');
        return dot < 0 ? "" : main.substring(0, dot + 1);
    }

    /** The page for these trees; 'title' heads it, 'subtitle' stands below. */
    void write(List<CallTree> trees, String title, String subtitle, Appendable out) throws IOException {
        long total = 0;
        List<long[]> widths = new ArrayList<>();
        for (CallTree tree : trees) {
            long[] w = widths(tree);
            widths.add(w);
            total += w[0];
        }
        long threshold = (long) Math.ceil(total * myMinFraction);
        int root = addNode(-1, "all", KIND_ROOT, 0, total, 0);
        for (int t = 0; t < trees.size(); t++) {
            CallTree tree = trees.get(t);
            long[] w = widths.get(t);
            if (w[0] == 0) {
                continue;
            }
            int top = root;
            if (tree.myThread != null) {
                top = addNode(root, tree.myThread.name(), KIND_THREAD, 0, w[0], 0);
            }
            addSubtree(tree, w, top, threshold);
        }
        Json data = new Json().beginObject()
                .field("title", title)
                .field("subtitle", subtitle)
                .field("unit", unit(myValue))
                .field("omitted", myOmitted)
                .field("application", applicationPackage());
        data.name("names").beginArray();
        for (String name : myNames) {
            data.value(name);
        }
        data.endArray().name("nodes").beginArray();
        for (int i = 0; i < myNodeCount * 6; i++) {
            data.value(myNodes[i]);
        }
        data.endArray().endObject();
        out.append(PAGE_START.replace("$TITLE", escapeHtml(title)));
        out.append(data.toString());
        out.append(PAGE_END);
    }

    /** Per node: its own value plus its descendants', consistent by construction. */
    private static String unit(Collapsed.Value value) {
        switch (value) {
            case TIME:
                return "ns";
            case ALLOC_BYTES:
                return "bytes";
            case ALLOC_COUNT:
                return "objects";
            default:
                return "calls";
        }
    }

    private long[] widths(CallTree tree) {
        long[] w = new long[tree.size()];
        // Children always come after their parents, so one backward pass sums bottom-up.
        for (int node = tree.size() - 1; node > 0; node--) {
            w[node] += myValue.isAmount() ? tree.myOwn[node] : tree.myCount[node];
            w[tree.myParent[node]] += w[node];
        }
        return w;
    }

    private void addSubtree(CallTree tree, long[] w, int pageParent, long threshold) {
        // Depth first, so that the page gets its nodes in preorder; children by name.
        List<int[]> stack = new ArrayList<>();
        int[] roots = Collapsed.childrenByName(myProfile, tree, 0);
        for (int i = roots.length - 1; i >= 0; i--) {
            stack.add(new int[] {roots[i], pageParent});
        }
        while (!stack.isEmpty()) {
            int[] entry = stack.remove(stack.size() - 1);
            int node = entry[0];
            if (w[node] == 0) {
                continue;
            }
            if (w[node] < threshold) {
                myOmitted++;
                continue;
            }
            long self = myValue.isAmount() ? tree.myOwn[node] : tree.myCount[node];
            int page = addNode(entry[1], tree.name(myProfile, node, false),
                    tree.myMethod[node] < -1 ? KIND_J2EE : KIND_METHOD, self, w[node], tree.myCount[node]);
            int[] children = Collapsed.childrenByName(myProfile, tree, node);
            for (int i = children.length - 1; i >= 0; i--) {
                stack.add(new int[] {children[i], page});
            }
        }
    }

    private int addNode(int parent, String name, int kind, long self, long width, long count) {
        if ((myNodeCount + 1) * 6 > myNodes.length) {
            myNodes = java.util.Arrays.copyOf(myNodes, myNodes.length * 2);
        }
        Integer index = myNameIndex.get(name);
        if (index == null) {
            index = myNames.size();
            myNames.add(name);
            myNameIndex.put(name, index);
        }
        int base = myNodeCount * 6;
        myNodes[base] = parent;
        myNodes[base + 1] = index;
        myNodes[base + 2] = kind;
        myNodes[base + 3] = self;
        myNodes[base + 4] = width;
        myNodes[base + 5] = count;
        return myNodeCount++;
    }

    static String escapeHtml(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;").replace("\"", "&quot;");
    }

    private static final String PAGE_START = """
            <!DOCTYPE html>
            <html lang="en">
            <head>
            <meta charset="utf-8">
            <title>$TITLE</title>
            <style>
            body { margin: 0; font: 12px "DejaVu Sans Mono", Menlo, Consolas, monospace; color: #222; background: #fff; }
            header { padding: 8px 12px; border-bottom: 1px solid #ddd; display: flex; gap: 12px; align-items: center; flex-wrap: wrap; }
            h1 { font-size: 15px; margin: 0; font-weight: 600; }
            #subtitle { color: #666; }
            #controls { margin-left: auto; display: flex; gap: 6px; }
            #search { width: 220px; font: inherit; padding: 2px 4px; }
            button { font: inherit; }
            #details { padding: 4px 12px; min-height: 16px; white-space: nowrap; overflow: hidden; text-overflow: ellipsis; border-bottom: 1px solid #eee; }
            #chart { position: relative; margin: 8px 12px; overflow: hidden; }
            .frame { position: absolute; height: 17px; line-height: 17px; box-sizing: border-box; border: 1px solid #fff;
                     border-width: 0 1px 1px 0; padding: 0 3px; overflow: hidden; white-space: nowrap; text-overflow: ellipsis; cursor: pointer; }
            .frame:hover { filter: brightness(0.9); }
            .frame.match { background: #e040fb !important; color: #fff; }
            .frame.ancestor { opacity: 0.6; }
            #empty { padding: 24px 12px; color: #666; }
            #legend span { padding: 0 6px; margin-right: 4px; }
            </style>
            </head>
            <body>
            <header><h1 id="title"></h1><span id="subtitle"></span>
            <div id="legend"><span style="background: hsl(20, 75%, 65%)">application</span><span style="background: hsl(110, 45%, 62%)">library</span><span style="background: hsl(205, 55%, 70%)">JDK</span></div>
            <div id="controls"><input id="search" type="search" placeholder="Search (regular expression)"><button id="flip">Root on top</button><button id="reset">Reset zoom</button></div></header>
            <div id="details">&nbsp;</div>
            <div id="chart"></div>
            <script type="application/json" id="flame-data">""";

    private static final String PAGE_END = """
            </script>
            <script>
            (function () {
              "use strict";
              var data = JSON.parse(document.getElementById("flame-data").textContent);
              var names = data.names, raw = data.nodes, n = raw.length / 6;
              var parent = new Int32Array(n), depth = new Int32Array(n), end = new Int32Array(n);
              var x = new Float64Array(n), cursor = new Float64Array(n);
              var maxDepth = 0;
              for (var i = 0; i < n; i++) {
                var p = raw[i * 6];
                parent[i] = p;
                if (p >= 0) {
                  depth[i] = depth[p] + 1;
                  x[i] = cursor[p];
                  cursor[p] += raw[i * 6 + 4];
                }
                cursor[i] = x[i];
                if (depth[i] > maxDepth) { maxDepth = depth[i]; }
              }
              for (var k = n - 1; k >= 0; k--) { if (end[k] === 0) { end[k] = k + 1; } if (parent[k] >= 0 && end[k] > end[parent[k]]) { end[parent[k]] = end[k]; } }
              var unit = data.unit, total = n > 0 ? raw[4] : 0;
              var chart = document.getElementById("chart"), details = document.getElementById("details");
              var search = document.getElementById("search");
              document.getElementById("title").textContent = data.title;
              document.getElementById("subtitle").textContent = data.subtitle;
              document.title = data.title;
              function nameOf(i) { return names[raw[i * 6 + 1]]; }
              function amount(v) {
                return unit === "ns" ? (v / 1e6).toLocaleString("en-US", {minimumFractionDigits: 1, maximumFractionDigits: 1}) + " ms"
                                     : v.toLocaleString("en-US") + " " + unit;
              }
              function percent(v) { return total > 0 ? (100 * v / total).toFixed(2) + "%" : "-"; }
              function describe(i) {
                var w = raw[i * 6 + 4], self = raw[i * 6 + 3], count = raw[i * 6 + 5];
                var text = nameOf(i) + "  " + amount(w) + " (" + percent(w) + ")";
                if (raw[i * 6 + 2] === 2) {
                  text += ", self " + amount(self);
                  if (count > 0 && unit === "ns") { text += ", " + count.toLocaleString("en-US") + " invocations"; }
                  if (count > 0 && unit === "bytes") { text += ", " + count.toLocaleString("en-US") + " objects"; }
                }
                return text;
              }
              function hash(s) { var h = 0; for (var c = 0; c < s.length; c++) { h = (h * 31 + s.charCodeAt(c)) | 0; } return h >>> 0; }
              // Application, library or JDK: the JDK by its packages, the application by the
              // package of the main class (anything not the JDK when that isn't known).
              var app = data.application;
              function origin(name) {
                if (/^(java|javax|jdk|sun|com\\.sun|jrockit)\\./.test(name)) { return 2; }
                if (app === null || app === undefined) { return 0; }
                if (app === "") { return name.indexOf(".") === name.lastIndexOf(".", name.indexOf("(") < 0 ? name.length : name.indexOf("(")) ? 0 : 1; }
                return name.indexOf(app) === 0 ? 0 : 1;
              }
              var hues = [[5, 35], [85, 55], [190, 40]];
              function color(i) {
                var kind = raw[i * 6 + 2];
                if (kind === 0) { return "hsl(0, 0%, 80%)"; }
                if (kind === 1) { return "hsl(0, 0%, 88%)"; }
                if (kind === 3) { return "hsl(275, 55%, 78%)"; }
                var name = nameOf(i), dot = name.lastIndexOf(".", name.indexOf("(") < 0 ? name.length : name.indexOf("("));
                var h = hash(dot > 0 ? name.substring(0, dot) : name), range = hues[origin(name)];
                return "hsl(" + (range[0] + h % range[1]) + ", " + (45 + (h >> 8) % 30) + "%, " + (60 + (h >> 16) % 12) + "%)";
              }
              // The root on top (an icicle) or at the bottom (a flame); a flame opens scrolled to
              // its root, so that the page starts where the time begins.
              var icicle = location.hash === "#icicle", scrolledToRoot = false;
              var flip = document.getElementById("flip");
              var zoomed = 0, pattern = null;
              function render() {
                chart.innerHTML = "";
                if (n === 0 || total === 0) {
                  chart.innerHTML = '<div id="empty">No data for this graph.</div>';
                  return;
                }
                var width = chart.clientWidth || 1200, rowHeight = 18;
                var zx = x[zoomed], zw = raw[zoomed * 6 + 4], scale = width / zw;
                var visible = [];
                for (var a = parent[zoomed]; a >= 0; a = parent[a]) { visible.push([a, 0, width, true]); }
                for (var i = zoomed; i < end[zoomed]; ) {
                  var w = raw[i * 6 + 4] * scale;
                  if (w < 0.5) { i = end[i]; continue; }
                  visible.push([i, (x[i] - zx) * scale, w, false]);
                  i++;
                }
                var deepest = 0;
                for (var v = 0; v < visible.length; v++) { deepest = Math.max(deepest, depth[visible[v][0]]); }
                chart.style.height = ((deepest + 1) * rowHeight) + "px";
                var fragment = document.createDocumentFragment();
                for (var f = 0; f < visible.length; f++) {
                  var node = visible[f][0], div = document.createElement("div");
                  div.className = "frame" + (visible[f][3] ? " ancestor" : "");
                  if (pattern && pattern.test(nameOf(node))) { div.className += " match"; }
                  div.style.left = visible[f][1] + "px";
                  div.style.width = visible[f][2] + "px";
                  if (icicle) { div.style.top = (depth[node] * rowHeight) + "px"; } else { div.style.bottom = (depth[node] * rowHeight) + "px"; }
                  div.style.background = color(node);
                  div.textContent = nameOf(node);
                  div.title = describe(node);
                  div.setAttribute("data-node", node);
                  fragment.appendChild(div);
                }
                chart.appendChild(fragment);
                flip.textContent = icicle ? "Root at bottom" : "Root on top";
                if (!icicle && !scrolledToRoot) {
                  scrolledToRoot = true;
                  window.scrollTo(0, document.body.scrollHeight);
                }
              }
              flip.addEventListener("click", function () { icicle = !icicle; render(); });
              chart.addEventListener("click", function (e) {
                var node = e.target.getAttribute && e.target.getAttribute("data-node");
                if (node !== null && node !== undefined) { zoomed = +node; render(); }
              });
              chart.addEventListener("mouseover", function (e) {
                var node = e.target.getAttribute && e.target.getAttribute("data-node");
                if (node !== null && node !== undefined) { details.textContent = describe(+node); }
              });
              document.getElementById("reset").addEventListener("click", function () { zoomed = 0; render(); });
              search.addEventListener("input", function () {
                var text = search.value;
                try { pattern = text ? new RegExp(text) : null; } catch (err) { pattern = null; }
                render();
                if (pattern) {
                  var matched = 0;
                  for (var i = 0; i < n; ) {
                    if (pattern.test(nameOf(i))) { matched += raw[i * 6 + 4]; i = end[i]; } else { i++; }
                  }
                  details.textContent = "Matched: " + amount(matched) + " (" + percent(matched) + ")";
                }
              });
              window.addEventListener("resize", render);
              render();
            })();
            </script>
            </body>
            </html>
            """;
}
