#!/usr/bin/env bash
# Plants each fault of scripts/mutants.list alone in a clean copy of the committed tree, builds
# the suites of the folder it touches, runs them, and counts the fault as caught (a suite
# failed) or missed. Prints the score and the missed faults. Not part of CI: the tests are
# judged by it when they are cut or grown.
# Usage: scripts/mutants.sh [ID-REGEX]     (default: every fault; e.g. 'pool|lock')
#        scripts/mutants.sh --check       (only says which faults no longer apply to the tree)
# Work tree and build: $VESK_MUTANTS_DIR (default /tmp/vesk_mutants), kept between runs so the
# compiler cache and the first build are paid once.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
only=${1:-.}
check=0
if [ "$only" = --check ]; then
    check=1 only=.
fi
work=${VESK_MUTANTS_DIR:-/tmp/vesk_mutants}
src=$work/src build=$work/build
# Relative paths let copies in other work directories share the compiler cache.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$work}
jobs=$(nproc 2>/dev/null || echo 2)

# The suites (CTest labels) that judge a fault in a folder, unless its line names others.
labels_of() {
    case "$1" in
    core/*) echo "core|preinit" ;;
    codec/*) echo "codec" ;;
    store/*) echo "store" ;;
    sched/*) echo "sched" ;;
    av/*) echo "av" ;;
    event/*) echo "event" ;;
    net/*) echo "net" ;;
    media/*) echo "media" ;;
    api/*) echo "preinit" ;;
    tools/*) echo "tools|core" ;;
    *) echo "core" ;;
    esac
}

# The test programs behind those labels (tools tests need the tools themselves).
targets_of() {
    local t=() l
    IFS='|' read -ra ls <<<"$1"
    for l in "${ls[@]}"; do
        case "$l" in
        tools) t+=(vesk_diag vesk_proxy_server nvr_sim) ;;
        *) [ ! -d "$src/tests/$l" ] || t+=("vesk_${l}_test") ;;
        esac
    done
    echo "${t[@]}"
}

# apply FILE: replaces the fault's "-" text (must occur exactly once) by its "+" text.
apply() {
    FROM=$from TO=$to perl -0777 -i -pe '
        my ($f, $t) = ($ENV{FROM}, $ENV{TO});
        my $n = () = /\Q$f\E/g;
        die "matches $n times\n" if $n != 1;
        s/\Q$f\E/$t/;' "$1"
}

# A check copies the working tree beside the build copy, so it never disturbs a run in progress.
[ $check -eq 0 ] || src=$work/check
mkdir -p "$work"
rm -rf "$src" && mkdir -p "$src"
if [ $check -eq 1 ]; then
    cp -r --parents $(git ls-files) "$src"     # the working tree, as edited
else
    git archive HEAD | tar -x -C "$src"
    # The archive carries the commit's times, older than objects a previous run built with its
    # last fault planted: stamp the copy now so every object is rebuilt from it (cache hits).
    find "$src" -type f -exec touch {} +
fi
[ $check -eq 1 ] || cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER_LAUNCHER="$(command -v ccache || true)" >/dev/null
[ $check -eq 1 ] || echo "mutants: building the clean copy"
all_targets=$(targets_of "core|preinit|codec|store|sched|av|event|net|media|tools")
# shellcheck disable=SC2086
[ $check -eq 1 ] || cmake --build "$build" -j "$jobs" --target $all_targets >"$work/build.log" 2>&1 \
    || { tail -30 "$work/build.log"; exit 1; }

caught=0 missed=() stale=() total=0
run_fault() {
    [ -n "$id" ] || return 0
    [[ "$id" =~ $only ]] || return 0
    local file=$src/$path labels=${lab:-$(labels_of "$path")} rc=0
    total=$((total + 1))
    cp "$file" "$work/orig"
    if ! apply "$file" 2>"$work/apply.err"; then
        stale+=("$id ($path: $(cat "$work/apply.err"))")
        cp "$work/orig" "$file"
        return 0
    fi
    if [ $check -eq 1 ]; then
        cp "$work/orig" "$file"
        return 0
    fi
    # shellcheck disable=SC2046
    # Builds and tests read no input: the fault list is on this loop's standard input.
    if ! cmake --build "$build" -j "$jobs" --target $(targets_of "$labels") >"$work/fault.log" 2>&1 </dev/null; then
        stale+=("$id (does not build)")
    else
        ctest --test-dir "$build" -L "^($labels)\$" -j "$jobs" --timeout 120 --stop-on-failure \
            >>"$work/fault.log" 2>&1 </dev/null || rc=$?
        if [ $rc -ne 0 ]; then
            caught=$((caught + 1))
            printf 'caught  %s\n' "$id"
        else
            missed+=("$id $path")
            printf 'MISSED  %s\n' "$id"
        fi
    fi
    cp -p "$work/orig" "$file"
    touch "$file"
}

# The list: "@ ID PATH [LABELS]", then "- " lines (the text to find), then "+ " lines (its
# replacement; none deletes it). Blank lines and "#" lines between faults are ignored.
id='' path='' lab='' from='' to='' nf=0 nt=0
while IFS= read -r line || [ -n "$line" ]; do
    case "$line" in
    '@ '*)
        run_fault
        read -r _ id path lab <<<"$line"
        from='' to='' nf=0 nt=0
        ;;
    '- '* | '-')
        [ $nf -gt 0 ] && from+=$'\n'
        from+=${line:2}
        nf=$((nf + 1))
        ;;
    '+ '* | '+')
        [ $nt -gt 0 ] && to+=$'\n'
        to+=${line:2}
        nt=$((nt + 1))
        ;;
    esac
done <"$top/scripts/mutants.list"
run_fault

echo
echo "mutants: $caught of $((total - ${#stale[@]})) caught; ${#missed[@]} missed; ${#stale[@]} stale"
for m in "${missed[@]}"; do echo "  missed: $m"; done
for s in "${stale[@]}"; do echo "  stale:  $s"; done
# Leave the copy clean for the next run.
rm -f "$work/orig"
