# Helpers shared by the benchmark scripts; sourced, not run.

# The median of numbers: of standard input, of the lines of FILE, or of column COL (blank
# separated) of FILE.
# usage: median | median FILE | median FILE COL
median() {
    case $# in
        0) cat ;;
        1) cat "$1" ;;
        *) cut -d' ' -f"$2" "$1" ;;
    esac | sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# Unpacks the sources of java.base/java/util from the JDK 17 source package into DIR/src and
# lists them in DIR/files.txt, for the javac workloads.
java_util_sources() {
    local dir=$1 sources=/usr/lib/jvm/openjdk-17/src.zip
    [ -f "$sources" ] || { echo "no JDK 17 sources at $sources: run scripts/install-deps.sh" >&2; exit 1; }
    (cd "$dir" && unzip -q "$sources" 'java.base/java/util/*' -d src)
    find "$dir/src" -name '*.java' > "$dir/files.txt"
}
