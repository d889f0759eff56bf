package com.kestrix.kjp;

import static com.kestrix.kjp.KjpReportTest.kjp;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.File;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Folded stacks and the flame graph page of the known profile. */
class KjpOutputsTest {
    @Test
    void foldedStacksFollowTheProgramsCallStructure() throws Exception {
        Path file = KnownProfile.file();
        KjpReportTest.Run perThread = kjp("collapsed", file.toString());
        assertEquals(0, perThread.status(), perThread.err());
        assertEquals(String.join("\n",
                "main;com.example.App.main(String[]) 100000000",
                "main;com.example.App.main(String[]);com.example.App.compute(int,long[]) 300000000",
                "main;com.example.App.main(String[]);com.example.App.compute(int,long[]);com.example.App.helper() 100000000",
                "main;com.example.App.main(String[]);com.example.App.compute(int,long[]);java.lang.Math.sqrt(double) 300000000",
                "main;com.example.App.main(String[]);com.example.App.helper() 200000000",
                "worker-1;com.example.Worker.run() 50000000",
                "worker-1;com.example.Worker.run();com.example.App.compute(int,long[]) 300000000",
                "worker-1;com.example.Worker.run();com.example.App.compute(int,long[]);java.lang.Math.sqrt(double) 150000000",
                ""), perThread.out());

        KjpReportTest.Run merged = kjp("collapsed", "--merged", "--value", "count", file.toString());
        assertEquals(0, merged.status(), merged.err());
        assertEquals(String.join("\n",
                "com.example.App.main(String[]) 1",
                "com.example.App.main(String[]);com.example.App.compute(int,long[]) 10",
                "com.example.App.main(String[]);com.example.App.compute(int,long[]);com.example.App.helper() 20",
                "com.example.App.main(String[]);com.example.App.compute(int,long[]);java.lang.Math.sqrt(double) 1000",
                "com.example.App.main(String[]);com.example.App.helper() 5",
                "com.example.Worker.run() 1",
                "com.example.Worker.run();com.example.App.compute(int,long[]) 4",
                "com.example.Worker.run();com.example.App.compute(int,long[]);java.lang.Math.sqrt(double) 200",
                ""), merged.out());

        KjpReportTest.Run one = kjp("collapsed", "--thread", "worker-1", file.toString());
        assertEquals(3, one.out().lines().count(), one.out());
        assertTrue(one.out().lines().allMatch(line -> line.startsWith("worker-1;")), one.out());
    }

    @Test
    void foldedStacksFoldFramesBelowTheDepthLimitIntoOneLineWithTheirSum() throws Exception {
        Path file = KnownProfile.file();
        // Depth counts methods, not the thread's frame: compute is at depth 2, helper and sqrt at 3.
        KjpReportTest.Run folded = kjp("collapsed", "--merged", "--max-depth", "2", file.toString());
        assertEquals(0, folded.status(), folded.err());
        assertEquals(String.join("\n",
                "com.example.App.main(String[]) 100000000",
                "com.example.App.main(String[]);com.example.App.compute(int,long[]) 300000000",
                "com.example.App.main(String[]);com.example.App.compute(int,long[]);[deeper frames] 400000000",
                "com.example.App.main(String[]);com.example.App.helper() 200000000",
                "com.example.Worker.run() 50000000",
                "com.example.Worker.run();com.example.App.compute(int,long[]) 300000000",
                "com.example.Worker.run();com.example.App.compute(int,long[]);[deeper frames] 150000000",
                ""), folded.out());

        KjpReportTest.Run bad = kjp("collapsed", "--max-depth", "0", file.toString());
        assertEquals(2, bad.status());
        assertTrue(bad.err().contains("--max-depth must be at least 1"), bad.err());
        KjpReportTest.Run misplaced = kjp("report", "--max-depth", "5", file.toString());
        assertEquals(2, misplaced.status());
        assertTrue(misplaced.err().contains("--max-depth belongs to collapsed"), misplaced.err());
    }

    @Test
    void foldedStacksSumNarrowSubtreesIntoOneFrameAndKeepTheTotal() throws Exception {
        Path file = KnownProfile.file();
        KjpReportTest.Run all = kjp("collapsed", "--merged", "--min-percent", "0", file.toString());
        // Of 1.5 s in all, helper's 0.2 s under main is narrower than 20 percent.
        KjpReportTest.Run narrow = kjp("collapsed", "--merged", "--min-percent", "20", file.toString());
        assertEquals(0, narrow.status(), narrow.err());
        assertEquals(sum(all.out()), sum(narrow.out()), narrow.out());
        assertTrue(narrow.out().contains("com.example.App.main(String[]);[narrow frames] 200000000\n"), narrow.out());
        assertTrue(!narrow.out().contains("com.example.App.main(String[]);com.example.App.helper()"), narrow.out());
    }

    private static long sum(String folded) {
        return folded.lines().mapToLong(line -> Long.parseLong(line.substring(line.lastIndexOf(' ') + 1))).sum();
    }

    /** The page's data: each frame's name with its width in nanoseconds, as the page holds them. */
    private static List<String> framesOf(String page) {
        Matcher data = Pattern.compile("id=\"flame-data\">(.*?)</script>", Pattern.DOTALL).matcher(page);
        assertTrue(data.find(), "no data in the page");
        String json = data.group(1);
        Matcher names = Pattern.compile("\"names\":\\[(.*?)\\],\"nodes\"").matcher(json);
        Matcher nodes = Pattern.compile("\"nodes\":\\[(.*?)\\]").matcher(json);
        assertTrue(names.find() && nodes.find(), json);
        List<String> nameList = new ArrayList<>();
        Matcher name = Pattern.compile("\"((?:[^\"\\\\]|\\\\.)*)\"").matcher(names.group(1));
        while (name.find()) {
            nameList.add(name.group(1).replace("\\u003c", "<"));
        }
        String[] numbers = nodes.group(1).split(",");
        List<String> frames = new ArrayList<>();
        for (int i = 0; i < numbers.length; i += 6) {
            frames.add(nameList.get(Integer.parseInt(numbers[i + 1])) + " " + numbers[i + 4]);
        }
        return frames;
    }

    @Test
    void flamePageIsSelfContainedWithFramesAsWideAsTheirTime(@TempDir Path dir) throws Exception {
        Path file = KnownProfile.file();
        Path page = dir.resolve("flame.html");
        KjpReportTest.Run run = kjp("flame", file.toString(), "-o", page.toString());
        assertEquals(0, run.status(), run.err());
        String html = Files.readString(page);
        assertFalse(Pattern.compile("(src|href)\\s*=", Pattern.CASE_INSENSITIVE).matcher(html).find(),
                "the page must load nothing");
        assertFalse(html.contains("http://") || html.contains("https://"), "the page must load nothing");
        assertEquals(List.of("all 1500000000", "main 1000000000", "com.example.App.main(String[]) 1000000000",
                "com.example.App.compute(int, long[]) 700000000", "com.example.App.helper() 100000000",
                "java.lang.Math.sqrt(double) 300000000", "com.example.App.helper() 200000000",
                "worker-1 500000000", "com.example.Worker.run() 500000000",
                "com.example.App.compute(int, long[]) 450000000", "java.lang.Math.sqrt(double) 150000000"),
                framesOf(html));

        Path merged = dir.resolve("merged.html");
        assertEquals(0, kjp("flame", "--merged", "--min-percent", "10", file.toString(), "-o", merged.toString())
                .status());
        // Without the thread level; the 100 ms helper under compute is below 10% and left out.
        assertEquals(List.of("all 1500000000", "com.example.App.main(String[]) 1000000000",
                "com.example.App.compute(int, long[]) 700000000", "java.lang.Math.sqrt(double) 300000000",
                "com.example.App.helper() 200000000", "com.example.Worker.run() 500000000",
                "com.example.App.compute(int, long[]) 450000000", "java.lang.Math.sqrt(double) 150000000"),
                framesOf(Files.readString(merged)));
    }

    private static String findChromium() {
        for (String dir : System.getenv().getOrDefault("PATH", "/usr/bin").split(File.pathSeparator)) {
            for (String name : new String[] {"chromium", "chromium-browser"}) {
                File candidate = new File(dir, name);
                if (candidate.canExecute()) {
                    return candidate.getPath();
                }
            }
        }
        return null;
    }

    @Test
    void flamePageShowsTheHotMethodInAHeadlessBrowser(@TempDir Path dir) throws Exception {
        String chromium = findChromium();
        Assumptions.assumeTrue(chromium != null, "chromium is not installed (apt-get install chromium); skipped");
        Path page = dir.resolve("flame.html");
        assertEquals(0, kjp("flame", KnownProfile.file().toString(), "-o", page.toString()).status());
        Process browser = new ProcessBuilder(chromium, "--headless", "--no-sandbox", "--disable-gpu",
                "--user-data-dir=" + dir.resolve("profile"), "--window-size=1200,600", "--dump-dom",
                page.toUri().toString())
                .redirectError(dir.resolve("chromium.log").toFile())
                .start();
        byte[] dom = browser.getInputStream().readAllBytes();
        assertTrue(browser.waitFor(120, TimeUnit.SECONDS), "chromium did not end");
        String rendered = new String(dom, StandardCharsets.UTF_8);
        // The script has drawn the frames: the hottest own-time method is there, with its figures.
        Matcher sqrt = Pattern.compile("<div class=\"frame\" title=\"java\\.lang\\.Math\\.sqrt\\(double\\)  "
                + "300\\.0 ms \\(20\\.00%\\), self 300\\.0 ms, 1,000 invocations\"[^>]*>java\\.lang\\.Math\\.sqrt\\(double\\)</div>")
                .matcher(rendered);
        assertTrue(sqrt.find(), rendered);
        Matcher frames = Pattern.compile("<div class=\"frame[^\"]*\"").matcher(rendered);
        int count = 0;
        while (frames.find()) {
            count++;
        }
        assertEquals(11, count, rendered);

        // Turned upside down the root is on top; the JDK's frames are blue, the program's warm.
        Process icicle = new ProcessBuilder(chromium, "--headless", "--no-sandbox", "--disable-gpu",
                "--user-data-dir=" + dir.resolve("profile2"), "--window-size=1200,600", "--dump-dom",
                page.toUri().toString() + "#icicle")
                .redirectError(dir.resolve("chromium2.log").toFile())
                .start();
        byte[] icicleDom = icicle.getInputStream().readAllBytes();
        assertTrue(icicle.waitFor(120, TimeUnit.SECONDS), "chromium did not end");
        String upsideDown = new String(icicleDom, StandardCharsets.UTF_8);
        assertTrue(upsideDown.contains(">Root at bottom</button>"), upsideDown);
        Matcher root = Pattern.compile("<div class=\"frame\" title=\"all [^\"]*\"[^>]* style=\"([^\"]*)\"").matcher(upsideDown);
        assertTrue(root.find() && root.group(1).contains("top: 0px"), upsideDown);
        int[] jdk = rgbOf(upsideDown, "java.lang.Math.sqrt(double)");
        int[] program = rgbOf(upsideDown, "com.example.App.compute(int, long[])");
        assertTrue(jdk[2] > jdk[0] && program[0] > program[2], upsideDown);
    }

    /** The background of the frame of a method in a rendered page, as red, green, blue. */
    private static int[] rgbOf(String dom, String method) {
        Matcher m = Pattern.compile("title=\"" + Pattern.quote(method)
                + "  [^\"]*\"[^>]*background: rgb\\((\\d+), (\\d+), (\\d+)\\)").matcher(dom);
        assertTrue(m.find(), method + " in " + dom);
        return new int[] {Integer.parseInt(m.group(1)), Integer.parseInt(m.group(2)), Integer.parseInt(m.group(3))};
    }
}
