#!/bin/sh
# Installs a built Reelmill, moves it, and uses it from outside the tree the way a host does: through CMake and through
# pkg-config, shared and static, with gcc and clang, as C++17 and with warnings as errors. Checks what the shared
# library shows.
#
# usage: check_consumer.sh BUILD_FOLDER
set -eu

build=$(cd "$1" && pwd)
source=$(cd "$(dirname "$0")/../.." && pwd)
warnings="-Wall -Wextra -Wpedantic -Wconversion -Werror"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/moved

fail()
{
    echo "check_consumer.sh: $*" >&2
    exit 1
}

# Runs what was built in the current folder and asks a reader about the movie that it wrote.
run_host()
{
    rm -f grey.mov
    "$1" || fail "$2: the host ended with $?"
    frames=$(ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 grey.mov)
    [ "$frames" = 25 ] || fail "$2: expected 25 frames in its movie, found '$frames'"
    echo "$2: good"
}

# Whether the host runs with the installed shared library, rather than without any.
check_linkage()
{
    needed=$(readelf -d "$1" | grep -c 'NEEDED.*libreelmill\.so\.0' || true)
    [ "$needed" = "$2" ] || fail "$1: links libreelmill.so.0 $needed times instead of $2"
}

# ---- Installing ------------------------------------------------------------------------------------------------------

cmake --install "$build" --prefix "$work/installed" >"$work/log" 2>&1 || { cat "$work/log"; fail "cannot install"; }
mv "$work/installed" "$prefix"
cp -r "$source/Examples/Consumer" "$work/consumer"

library=$(find "$prefix" -name libreelmill.so)
[ -n "$library" ] || fail "no libreelmill.so was installed"
if grep -rIl -e "$build" -e "$source" -e "$work/installed" "$prefix"; then
    fail "the files above name the folders that they were built or first installed in"
fi

# What pressing the tab key behind the given words would offer.
complete_words()
{
    bash -c 'source "$1" && shift && COMP_WORDS=("$@") && COMP_CWORD=$(($# - 1)) && _reelmill &&
        complete -p reelmill >/dev/null && echo "${COMPREPLY[@]}"' bash "$completion" "$@"
}

# The command is installed when it was built, finds its library, and brings its manual page and tab completion.
if [ -x "$prefix/bin/reelmill" ]; then
    "$prefix/bin/reelmill" --help >/dev/null || fail "the installed command does not run"

    page=$(find "$prefix" -path '*/man1/reelmill.1')
    [ -s "$page" ] || fail "no manual page was installed"
    groff -man -ww -Tutf8 -P-cbu "$page" >"$work/page" 2>"$work/log" || fail "groff ended with $?"
    [ ! -s "$work/log" ] || { cat "$work/log"; fail "groff warns about the manual page"; }
    grep -q -e '--timecode' "$work/page" || fail "the manual page does not explain --timecode"

    completion=$(find "$prefix" -path '*/bash-completion/completions/reelmill')
    [ -s "$completion" ] || fail "no tab completion was installed"
    for words in "verify:reelmill ver" "--timecode:reelmill wrap in.mov --timec" "map:reelmill help ma"; do
        offered=$(complete_words ${words#*:})
        [ "$offered" = "${words%%:*}" ] || fail "behind '${words#*:}' tab offers '$offered'"
    done
    echo "command, manual page and tab completion: good"
fi

# ---- What the shared library shows -----------------------------------------------------------------------------------

readelf -d "$library" | grep -q 'SONAME.*\[libreelmill\.so\.0\]' || fail "the SONAME is not libreelmill.so.0"

nm -D --defined-only -C "$library" | cut -d' ' -f3- >"$work/symbols"
for name in QT::CreateReelmill QT::CreateImageDescription QT::CreateSoundDescription QT::CreateTextDescription \
    QT::CreateTimecodeDescription QT::CreateClosedCaptionDescription Tolbin::ResultMessage Ventra::File::Create; do
    grep -q "^$name[[(]" "$work/symbols" || fail "the shared library does not show $name"
done
for class in Reelmill QTSampleDescription QTImageDescription QTSoundDescription QTTextDescription \
    QTTimecodeDescription QTClosedCaptionDescription; do
    for symbol in "typeinfo for" "vtable for"; do
        grep -qx "$symbol QT::$class" "$work/symbols" || fail "the shared library does not show the $symbol QT::$class"
    done
done
if grep -vE '^((typeinfo|typeinfo name|vtable) for )?(QT|Tolbin|Ventra|Quorlan)::|^unsigned int Tolbin::debug::DebugDatabase::GetEntryAs<' \
    "$work/symbols" || grep -E '::Private|\(anonymous namespace\)' "$work/symbols"; then
    fail "the shared library shows the symbols above"
fi

# ---- Headers ---------------------------------------------------------------------------------------------------------

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name reelmill.pc)")
for compiler in g++ clang++; do
    (cd "$prefix/include" && find . -name '*.h') | while read -r header; do
        echo "#include <${header#./}>" | "$compiler" -std=c++17 $warnings -fsyntax-only -I"$prefix/include" -x c++ - ||
            fail "$compiler: ${header#./} does not compile by itself"
    done
done

# ---- Hosts -----------------------------------------------------------------------------------------------------------

for compiler in g++ clang++; do
    for static in OFF ON; do
        what="CMake, $compiler, static $static"
        folder=$work/cmake-$compiler-$static
        # Without the last setting the headers of an imported target count as the system's and may warn.
        { cmake -S "$work/consumer" -B "$folder" -DCMAKE_PREFIX_PATH="$prefix" -DREELMILL_STATIC=$static \
            -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$warnings" \
            -DCMAKE_CXX_STANDARD=17 -DCMAKE_CXX_STANDARD_REQUIRED=ON -DCMAKE_CXX_EXTENSIONS=OFF \
            -DCMAKE_NO_SYSTEM_FROM_IMPORTED=ON && cmake --build "$folder"; } >"$work/log" 2>&1 ||
            { cat "$work/log"; fail "$what: does not build"; }
        cd "$folder"
        run_host ./host "$what"
        [ $static = ON ] && check_linkage host 0 || check_linkage host 1
    done

    for static in OFF ON; do
        what="pkg-config, $compiler, static $static"
        mkdir "$work/pkg-config-$compiler-$static"
        cd "$work/pkg-config-$compiler-$static"
        if [ $static = ON ]; then
            flags=$(pkg-config --static --cflags --libs reelmill | sed 's/-lreelmill/-l:libreelmill.a/')
        else
            flags="$(pkg-config --cflags --libs reelmill) '-Wl,-rpath,$(dirname "$library")'"
        fi
        # pkg-config escapes the spaces of a path for the shell.
        eval '"$compiler" -std=c++17 $warnings -o host "$work/consumer/Host.cpp"' "$flags" || fail "$what: does not build"
        run_host ./host "$what"
        [ $static = ON ] && check_linkage host 0 || check_linkage host 1
    done
done

# A version that is not there is not found.
if pkg-config --exists 'reelmill >= 1000'; then
    fail "pkg-config found a version that was not installed"
fi
