#!/usr/bin/env bash
# What it costs a process to be linked with the libraries: the same empty program with them and without.
#
# usage: bench/load.sh [BUILD_TREE]     default: build/release; the libraries must have been built there as shared ones
#
# 1. The calls in the libraries' static initialisers, read from the machine code: nothing but the registration of modules
#    and what the language needs to undo it. Anything else is an error.
# 2. The dynamic linker's own statistics: relocations, and the time of its work.
# 3. The time from fork to exit, least of several hundred runs.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build/release}")
libraries=("$build/Mox/libmox.so" "$build/Redundancy/libmoxredundancy.so" "$build/Vel/libvel.so")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# --- the calls of static initialisers ---

allowed='velModuleIs|__cxa_atexit|std::ios_base::Init::|_Unwind_Resume'
echo "calls from static initialisers:"
for library in "${libraries[@]}"; do
    objdump -d -C --no-show-raw-insn "$library" |
        awk '/^[0-9a-f]+ <.*>:$/ { inside = /<_GLOBAL__sub_I_/ } inside && /(call|jmp) .*@?plt/' |
        c++filt | sed -E 's/.*<(_Z[A-Za-z0-9_]+)[@$]plt>.*/\1/; s/.*<(.*)[@$]plt>.*/\1/' | c++filt
done >"$work/calls"
sort "$work/calls" | uniq -c | sort -rn
if grep -Ev "$allowed" "$work/calls"; then
    echo "bench/load.sh: the initialisers call something else" >&2
    exit 1
fi

# --- two programs ---

echo 'int main() {}' >"$work/main.cpp"
c++ -O2 -o "$work/without" "$work/main.cpp" -Wl,--no-as-needed -lstdc++ -lm
c++ -O2 -o "$work/with" "$work/main.cpp" -Wl,--no-as-needed "${libraries[@]}" \
    "-Wl,-rpath,$build/Mox:$build/Redundancy:$build/Vel" -lstdc++ -lm

echo
echo "the dynamic linker (LD_DEBUG=statistics):"
for program in without with; do
    LD_DEBUG=statistics "$work/$program" 2>&1 |
        sed -nE "s/^ *[0-9]+:\s+(number of relocations: |number of relocations from cache: |number of relative relocations: )([0-9]+).*/    $program: \1\2/p"
done

# Microseconds of one run.
run() {
    local start=$EPOCHREALTIME
    "$1"
    local end=$EPOCHREALTIME
    echo $((10#${end/./} - 10#${start/./}))
}
declare -A least=([without]=999999 [with]=999999)
for ((i = 0; i < 300; ++i)); do
    for program in without with; do
        time=$(run "$work/$program")
        if ((time < least[$program])); then least[$program]=$time; fi
    done
done
echo
echo "fork to exit, least of 300 runs in turn, microseconds:"
echo "    without the libraries ${least[without]}, with them ${least[with]}: $((least[with] - least[without])) more"
