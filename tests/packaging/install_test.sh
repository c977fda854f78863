#!/usr/bin/env bash
# Installs under a prefix and moves the tree. The programs must still find the plug-in. A component in C must build
# with pkg-config and with the CMake package.
# Arguments: the build folder, cmake, the sanitizers that the build has.
set -euo pipefail
build=$1
cmake=$2
sanitize=$3
source=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/moved tree"
unset DESTDIR LD_LIBRARY_PATH CMAKE_PREFIX_PATH PKG_CONFIG_PATH

fail() {
    echo "FAILED: $*" >&2
    exit 1
}
for tool in pkg-config cc; do
    command -v $tool >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done

"$cmake" --install "$build" --prefix "$work/installed" >install.log || fail "$(tail install.log)"
mv "$work/installed" "$prefix"
cd "$work"

# ---- programs
grep -q '^pccast [0-9]' <<<"$("$prefix/bin/pccast" --version)" || fail "pccast does not run"
grep -q 'serve .*run the service' <<<"$("$prefix/bin/pccast" --help)" || fail "pccast --help"
grep -q '^pccast-feed [0-9]' <<<"$("$prefix/bin/pccast-feed" --version)" || fail "pccast-feed does not run"
missing=$(find "$prefix" \( -path '*/bin/*' -o -name '*.so*' \) -exec ldd {} + | grep 'not found' || true)
[ -z "$missing" ] || fail "libraries are not found: $missing"
elsewhere=$(ldd "$prefix/bin/diagpccast" | grep -E 'pccast|qxapi|vexa' | grep -v "$prefix" || true)
[ -z "$elsewhere" ] || fail "libraries are found elsewhere: $elsewhere"
"$prefix/bin/pccast" serve >serve.log 2>&1 &
service=$!
for ((i = 0; i < 100; i++)); do
    grep -q 'serves casts' serve.log && break
    sleep 0.1
done
kill -TERM $service
wait $service || fail "the installed service: $(cat serve.log)"

# ---- files that others look for by name
for file in share/man/man1/{pccast,diagpccast,pccast-feed}.1 share/man/man3/pccast.3 \
    share/bash-completion/completions/pccast share/zsh/vendor-completions/_pccast \
    share/fish/vendor_completions.d/pccast.fish lib/systemd/system/pccast.service \
    lib/systemd/user/pccast-tune.service lib/sysusers.d/pccast.conf \
    share/pccast/pccast.lua share/pccast/samples/{sample.asf,sample.ts,sample.nsc,CASTFILE.asf,CASTFILE2.asf}; do
    [ -s "$prefix/$file" ] || fail "$file is not there"
done
if command -v man >/dev/null; then
    warnings=$(cd "$prefix/share/man" && LC_ALL=C.UTF-8 man --warnings -E UTF-8 -Tutf8 -Z man?/* 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "man pages: $warnings"
fi
# The man page names every operation that the headers declare.
for name in $(grep -ohE '\b(QX_|p_qxapi_|MAKE|COPYa|ELIMINATE|VALIDATE|COMPARE|PRINT|Tx|pccastS)\w+\(' \
    "$prefix"/include/pccast/*.h | tr -d '(' | sort -u); do
    grep -q "$name" "$prefix/share/man/man3/pccast.3" || fail "pccast(3) does not tell of $name"
done
# pccast(1) names every long option that a command's help shows.
sed 's/\\-/-/g; s/\\f[RPBI]//g' "$prefix/share/man/man1/pccast.1" |
    sed -n '/^\.SH COMMANDS/,/^\.SH EXIT/p' >commands.txt
for command in serve relay file stop message cancel history watch tune receive station; do
    for option in $("$prefix/bin/pccast" $command --help | grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+'); do
        [ "$option" = --help ] || grep -qE -- "$option( |$)" commands.txt ||
            fail "pccast(1) does not tell of $command's $option"
    done
done

# ---- a component
flags=(-std=c11 -Wall -Wextra -Werror -pedantic)
[ -z "$sanitize" ] || flags+=("-fsanitize=$sanitize")
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name pccast.pc)")
export PKG_CONFIG_PATH
eval "of_pkg_config=($(pkg-config --cflags --libs pccast))"
cc "${flags[@]}" "$source/examples/component.c" -o with_pkg_config "${of_pkg_config[@]}" \
    "-Wl,-rpath,${PKG_CONFIG_PATH%/pkgconfig}" || fail "not built with pkg-config"
"$cmake" -G Ninja -S "$prefix/share/doc/pccast/examples" -B cmake -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="${flags[*]}" >cmake.log 2>&1 && "$cmake" --build cmake >>cmake.log 2>&1 ||
    fail "not built with the CMake package: $(cat cmake.log)"
for component in ./with_pkg_config cmake/component; do
    status=0
    $component >/dev/null 2>said || status=$?
    [ $status -eq 64 ] && grep -q usage said || fail "$component ends with $status: $(cat said)"
done
