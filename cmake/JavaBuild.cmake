# Java parts of the project: the command-line tools and the UI-side natives class under
# tools/, compiled with the installed javac into build/tools/kjp-tools.jar.
find_program(KJP_JAVA java HINTS "${KJP_JAVA_HOME}/bin" REQUIRED)

file(GLOB_RECURSE KJP_TOOLS_SOURCES CONFIGURE_DEPENDS "${CMAKE_SOURCE_DIR}/tools/src/*.java")
set(KJP_TOOLS_CLASSES "${CMAKE_BINARY_DIR}/tools/classes")
set(KJP_TOOLS_JAR "${CMAKE_BINARY_DIR}/tools/kjp-tools.jar")

# kjp connect speaks the agent's protocol through the runtime's own classes, compiled from the
# runtime's sources as the agent embeds them (javac takes what they need from the source path).
set(KJP_TOOLS_RUNTIME_SOURCES
  ${CMAKE_SOURCE_DIR}/runtime/com/kestrix/Constants.java
  ${CMAKE_SOURCE_DIR}/runtime/com/kestrix/api/ProfilingModesExt.java
  ${CMAKE_SOURCE_DIR}/runtime/com/kestrix/api/TelemetryRecord.java
  ${CMAKE_SOURCE_DIR}/runtime/com/kestrix/runtime/Packet.java
  ${CMAKE_SOURCE_DIR}/runtime/com/kestrix/runtime/Protocol.java)

add_custom_command(
  OUTPUT ${KJP_TOOLS_JAR}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${KJP_TOOLS_CLASSES}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${KJP_TOOLS_CLASSES}
  COMMAND ${KJP_JAVAC} --release 8 -Xlint:-options -encoding UTF-8 -sourcepath ${CMAKE_SOURCE_DIR}/runtime
          -implicit:class -d ${KJP_TOOLS_CLASSES} ${KJP_TOOLS_RUNTIME_SOURCES}
  COMMAND ${KJP_JAVAC} --release 17 -Xlint:all -Werror -encoding UTF-8 -cp ${KJP_TOOLS_CLASSES}
          -d ${KJP_TOOLS_CLASSES} ${KJP_TOOLS_SOURCES}
  COMMAND ${KJP_JAR} --create --file ${KJP_TOOLS_JAR} -C ${KJP_TOOLS_CLASSES} .
  DEPENDS ${KJP_TOOLS_SOURCES} ${KJP_RUNTIME_SOURCES}
  COMMENT "Compiling the Java tools"
  VERBATIM)
add_custom_target(kjptools ALL DEPENDS ${KJP_TOOLS_JAR})
