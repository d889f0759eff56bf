# The Java classes that travel inside the agent: compiled from runtime/ with the installed
# javac for Java 8 (class version 52) and embedded into the library as byte arrays. The
# callback class and its call log go into a jar of their own; every other class into the table
# that initializeCore defines into the JVM.
find_program(KJP_JAVAC javac HINTS "${KJP_JAVA_HOME}/bin" REQUIRED)
find_program(KJP_JAR jar HINTS "${KJP_JAVA_HOME}/bin" REQUIRED)

file(GLOB_RECURSE KJP_RUNTIME_SOURCES CONFIGURE_DEPENDS "${CMAKE_SOURCE_DIR}/runtime/*.java")
set(KJP_RUNTIME_CLASSES "${CMAKE_BINARY_DIR}/runtime/classes")
set(KJP_RUNTIME_STAMP "${CMAKE_BINARY_DIR}/runtime/classes.stamp")
set(KJP_GENERATED "${CMAKE_BINARY_DIR}/generated")
file(MAKE_DIRECTORY ${KJP_GENERATED})

add_custom_command(
  OUTPUT ${KJP_RUNTIME_STAMP}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${KJP_RUNTIME_CLASSES}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${KJP_RUNTIME_CLASSES}
  COMMAND ${KJP_JAVAC} --release 8 -Xlint:-options -encoding UTF-8 -g:none -d ${KJP_RUNTIME_CLASSES} ${KJP_RUNTIME_SOURCES}
  COMMAND ${CMAKE_COMMAND} -E touch ${KJP_RUNTIME_STAMP}
  DEPENDS ${KJP_RUNTIME_SOURCES}
  COMMENT "Compiling the embedded Java runtime"
  VERBATIM)

# The callback jar: the classes that must be on the boot class path before any other class
# loads (the probes' target and the call log it hands traced calls to), as a plain zip with
# its directory entries and a manifest.
set(KJP_CALLBACK_JAR "${CMAKE_BINARY_DIR}/runtime/callback.jar")
set(KJP_CALLBACK_STAGING "${CMAKE_BINARY_DIR}/runtime/callback")
add_custom_command(
  OUTPUT ${KJP_CALLBACK_JAR}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${KJP_CALLBACK_JAR} ${KJP_CALLBACK_STAGING}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${KJP_CALLBACK_STAGING}/com/kestrix/runtime
  COMMAND ${CMAKE_COMMAND} -E copy ${KJP_RUNTIME_CLASSES}/com/kestrix/runtime/Callback.class
          ${KJP_RUNTIME_CLASSES}/com/kestrix/runtime/CallLog.class ${KJP_CALLBACK_STAGING}/com/kestrix/runtime/
  COMMAND ${KJP_JAR} --create --no-compress --date=2009-02-20T14:32:00Z --file ${KJP_CALLBACK_JAR}
          -C ${KJP_CALLBACK_STAGING} .
  DEPENDS ${KJP_RUNTIME_STAMP}
  COMMENT "Packing the callback jar"
  VERBATIM)

set(KJP_EMBEDDED_SOURCES "${KJP_GENERATED}/EmbeddedCallbackJar.cpp")
add_custom_command(
  OUTPUT ${KJP_GENERATED}/EmbeddedCallbackJar.cpp
  COMMAND ${CMAKE_COMMAND} -DINPUT=${KJP_CALLBACK_JAR} -DOUTPUT=${KJP_GENERATED}/EmbeddedCallbackJar.cpp
          -DSYMBOL=ourCallbackJarBytes -P ${CMAKE_SOURCE_DIR}/cmake/EmbedFile.cmake
  DEPENDS ${KJP_CALLBACK_JAR} ${CMAKE_SOURCE_DIR}/cmake/EmbedFile.cmake
  COMMENT "Embedding the callback jar"
  VERBATIM)

# The table of the other runtime classes. Which classes there are is known only after javac
# ran, so the script lists the class directory at build time.
list(APPEND KJP_EMBEDDED_SOURCES "${KJP_GENERATED}/EmbeddedClasses.cpp")
add_custom_command(
  OUTPUT ${KJP_GENERATED}/EmbeddedClasses.cpp
  COMMAND ${CMAKE_COMMAND} -DCLASSES_DIR=${KJP_RUNTIME_CLASSES} -DOUTPUT=${KJP_GENERATED}/EmbeddedClasses.cpp
          -P ${CMAKE_SOURCE_DIR}/cmake/EmbedClasses.cmake
  DEPENDS ${KJP_RUNTIME_STAMP} ${CMAKE_SOURCE_DIR}/cmake/EmbedClasses.cmake
  COMMENT "Embedding the runtime classes"
  VERBATIM)
