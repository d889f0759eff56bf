# Turns the compiled runtime classes into the C++ table of embedded classes that
# initializeCore defines into the JVM: one row of name, size and bytes per class.
# Usage: cmake -DCLASSES_DIR=dir -DOUTPUT=file.cpp -P EmbedClasses.cmake
#
# Every class under CLASSES_DIR goes in, except the callback class, which reaches the JVM
# through the callback jar on the boot class path. Rows follow the runtime's customary order
# below; classes not named there follow in alphabetical order. That order is then adjusted so
# that a superclass or interface from the runtime always comes before its users: DefineClass
# resolves them at once, and the system loader, which would be asked otherwise, can't see the
# embedded classes.

set(PREFERRED_ORDER
  com/kestrix/Constants
  com/kestrix/api/ProfilingModes
  com/kestrix/api/ProfilingModesExt
  com/kestrix/api/TelemetryRecord
  com/kestrix/runtime/Agent
  com/kestrix/runtime/AgentException
  com/kestrix/runtime/Core$1
  com/kestrix/runtime/Core$2
  com/kestrix/runtime/Core$3
  com/kestrix/runtime/Core$MyProcessOutputReader
  com/kestrix/runtime/Core
  com/kestrix/runtime/MemoryThresholdJVMTI$1
  com/kestrix/runtime/MemoryThresholdJVMTI
  com/kestrix/runtime/OOMEDumper
  com/kestrix/runtime/Packet
  com/kestrix/runtime/PeriodicalCaptureSupport$1
  com/kestrix/runtime/PeriodicalCaptureSupport
  com/kestrix/runtime/PresentableException
  com/kestrix/runtime/Protocol
  com/kestrix/runtime/RequestProcessing
  com/kestrix/runtime/StackTraceElementRes
  com/kestrix/runtime/TelemetryThreadJVMTI
  com/kestrix/runtime/ThreadInfoRes
  com/kestrix/runtime/Unquoter
  com/kestrix/util/Asserts
  com/kestrix/util/Strings)
set(EXCLUDED com/kestrix/runtime/Callback)

if(NOT CLASSES_DIR OR NOT OUTPUT)
  message(FATAL_ERROR "EmbedClasses.cmake needs CLASSES_DIR and OUTPUT")
endif()

file(GLOB_RECURSE class_files RELATIVE "${CLASSES_DIR}" "${CLASSES_DIR}/*.class")
set(all_classes "")
foreach(file ${class_files})
  string(REGEX REPLACE "\\.class$" "" name "${file}")
  list(FIND EXCLUDED "${name}" excluded)
  if(excluded EQUAL -1)
    list(APPEND all_classes "${name}")
  endif()
endforeach()
list(SORT all_classes)

# Preferred order: the named classes that exist, then the rest.
set(candidates "")
foreach(name ${PREFERRED_ORDER})
  list(FIND all_classes "${name}" present)
  if(NOT present EQUAL -1)
    list(APPEND candidates "${name}")
  endif()
endforeach()
foreach(name ${all_classes})
  list(FIND candidates "${name}" present)
  if(present EQUAL -1)
    list(APPEND candidates "${name}")
  endif()
endforeach()

# Class names as hex, to recognise them among the constant-pool texts.
foreach(name ${all_classes})
  string(HEX "${name}" name_hex)
  set("class_of_${name_hex}" "${name}")
endforeach()

# Reads the big-endian u1/u2 at byte 'offset' of 'hex' into 'out'.
function(read_u1 hex offset out)
  math(EXPR start "(${offset}) * 2")
  string(SUBSTRING "${hex}" ${start} 2 digits)
  math(EXPR value "0x${digits}")
  set(${out} ${value} PARENT_SCOPE)
endfunction()
function(read_u2 hex offset out)
  math(EXPR start "(${offset}) * 2")
  string(SUBSTRING "${hex}" ${start} 4 digits)
  math(EXPR value "0x${digits}")
  set(${out} ${value} PARENT_SCOPE)
endfunction()

# The runtime classes that 'name' extends or implements, in 'out'. Walks the constant pool
# for the offsets of class entries and texts, then reads super_class and the interfaces.
function(read_runtime_supertypes name hex out)
  read_u2("${hex}" 8 pool_count)
  set(offset 10)
  set(index 1)
  while(index LESS pool_count)
    read_u1("${hex}" ${offset} tag)
    if(tag EQUAL 1)
      read_u2("${hex}" ${offset}+1 length)
      math(EXPR text_offset "${offset} + 3")
      set(text_offset_${index} ${text_offset})
      set(text_length_${index} ${length})
      math(EXPR offset "${offset} + 3 + ${length}")
    elseif(tag EQUAL 7)
      read_u2("${hex}" ${offset}+1 name_index)
      set(class_name_${index} ${name_index})
      math(EXPR offset "${offset} + 3")
    elseif(tag EQUAL 5 OR tag EQUAL 6)
      math(EXPR offset "${offset} + 9")
      math(EXPR index "${index} + 1")
    elseif(tag EQUAL 3 OR tag EQUAL 4 OR tag EQUAL 9 OR tag EQUAL 10 OR tag EQUAL 11 OR tag EQUAL 12
           OR tag EQUAL 17 OR tag EQUAL 18)
      math(EXPR offset "${offset} + 5")
    elseif(tag EQUAL 8 OR tag EQUAL 16 OR tag EQUAL 19 OR tag EQUAL 20)
      math(EXPR offset "${offset} + 3")
    elseif(tag EQUAL 15)
      math(EXPR offset "${offset} + 4")
    else()
      message(FATAL_ERROR "${name}.class: unknown constant-pool tag ${tag} at entry ${index}")
    endif()
    math(EXPR index "${index} + 1")
  endwhile()

  # access_flags, this_class, then super_class and the interface list.
  math(EXPR offset "${offset} + 4")
  read_u2("${hex}" ${offset} super_index)
  math(EXPR offset "${offset} + 2")
  read_u2("${hex}" ${offset} interface_count)
  set(type_indices "")
  if(super_index GREATER 0)
    list(APPEND type_indices ${super_index})
  endif()
  foreach(i RANGE 1 ${interface_count})
    if(i GREATER interface_count)
      break()
    endif()
    math(EXPR offset "${offset} + 2")
    read_u2("${hex}" ${offset} interface_index)
    list(APPEND type_indices ${interface_index})
  endforeach()

  set(result "")
  foreach(type_index ${type_indices})
    set(text_index ${class_name_${type_index}})
    math(EXPR start "${text_offset_${text_index}} * 2")
    math(EXPR digits "${text_length_${text_index}} * 2")
    string(SUBSTRING "${hex}" ${start} ${digits} type_hex)
    if(DEFINED "class_of_${type_hex}")
      list(APPEND result "${class_of_${type_hex}}")
    endif()
  endforeach()
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

foreach(name ${candidates})
  file(READ "${CLASSES_DIR}/${name}.class" hex_${name} HEX)
  string(SUBSTRING "${hex_${name}}" 0 8 magic)
  if(NOT magic STREQUAL "cafebabe")
    message(FATAL_ERROR "${CLASSES_DIR}/${name}.class is not a class file")
  endif()
  read_runtime_supertypes("${name}" "${hex_${name}}" supertypes_${name})
endforeach()

# Each round places the first candidate, in preferred order, whose supertypes are placed.
set(ordered "")
set(remaining ${candidates})
while(remaining)
  set(chosen "")
  foreach(name ${remaining})
    set(ready TRUE)
    foreach(supertype ${supertypes_${name}})
      list(FIND ordered "${supertype}" placed)
      if(placed EQUAL -1)
        set(ready FALSE)
        break()
      endif()
    endforeach()
    if(ready)
      set(chosen "${name}")
      break()
    endif()
  endforeach()
  if(NOT chosen)
    message(FATAL_ERROR "Runtime classes with circular supertypes: ${remaining}")
  endif()
  list(APPEND ordered "${chosen}")
  list(REMOVE_ITEM remaining "${chosen}")
endwhile()

set(arrays "")
set(rows "")
set(number 0)
foreach(name ${ordered})
  set(content "${hex_${name}}")
  string(LENGTH "${content}" hex_length)
  math(EXPR byte_count "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${content}")
  string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){16})" "\\1\n    " bytes "${bytes}")
  string(APPEND arrays "// ${name}\nconst unsigned char ourClass${number}[] = {\n    ${bytes}\n};\n\n")
  string(APPEND rows "    {\"${name}\", ${byte_count}, ourClass${number}},\n")
  math(EXPR number "${number} + 1")
endforeach()
if(number EQUAL 0)
  # An empty table still needs a valid array; the count keeps its row out of reach.
  set(rows "    {nullptr, 0, nullptr},\n")
endif()

file(WRITE "${OUTPUT}.tmp"
  "// Generated from the classes in ${CLASSES_DIR}; do not edit.\n"
  "#include \"agent/EmbeddedClasses.h\"\n\n"
  "namespace {\n\n${arrays}}  // namespace\n\n"
  "const EmbeddedClass ourEmbeddedClasses[] = {\n${rows}};\n"
  "const int ourEmbeddedClassCount = ${number};\n")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
