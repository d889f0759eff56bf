#!/bin/sh
# Checks the include rules between the layers of the agent:
#  - engines/, db/, snapshot/ and analysis/ include no entry file of agent/ (the JVMTI
#    callbacks, Agent_OnLoad, the Core natives and the runtime's start-up), which reach the
#    engines through the engine table and never the other way round;
#  - classfile/ includes nothing of instrument/: the class-file model knows no policy.
# Usage: layering.sh <source root>
root="${1:-.}"
status=0
entries='agent/(AgentEntry|LifecycleEvents|CoreNatives|CoreInitialization|ClassEvents|EngineEvents)\.h'
for dir in engines db snapshot analysis; do
  [ -d "$root/$dir" ] || continue
  if grep -rnE "#include \"$entries\"" "$root/$dir"; then
    echo "FAIL: $dir/ includes an entry file of agent/" >&2
    status=1
  fi
done
if grep -rn '#include "instrument/' "$root/classfile"; then
  echo "FAIL: classfile/ includes instrument/" >&2
  status=1
fi
[ $status -eq 0 ] && echo "layering rules hold"
exit $status
