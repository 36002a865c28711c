#!/bin/bash
# Installs a build into a prefix, moves the prefix, and uses the libraries there without anything
# else of this tree.
#
# run.sh <cmake> <compiler> <source folder> <build folder> <libdir> <datadir> <compiler flags>
set -eu
cmake=$1 compiler=$2 source=$3 build=$4 libdir=$5 datadir=$6 flags=$7

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH CMAKE_PREFIX_PATH TrelanClient_DIR
export DESTDIR=

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

expect() { # <what> <expected> <actual>
    [ "$2" = "$3" ] || fail "$1: expected '$2', got '$3'"
    echo "ok: $1: $3"
}

run() { # <program> <locale>
    env -u LANGUAGE LC_ALL="$2" "$1" 2>&1
}

check_program() { # <name> <program>
    expect "$1, plain" "a.b 1.2.1 Unsupported request" "$(run "$2" C)"
    expect "$1, German" "a.b 1.2.1 Anfrage nicht unterstützt" "$(run "$2" de_DE.UTF-8)"
}

"$cmake" --install "$build" --prefix "$work/first" >/dev/null
mkdir "$work/else where"
mv "$work/first" "$work/else where/moved"
prefix="$work/else where/moved"

# Installed files may name neither the first prefix nor the build folder.
for trace in "$work/first" "$build"; do
    ! grep -rlF "$trace" "$prefix/$libdir/cmake" "$prefix/$libdir/pkgconfig" ||
        fail "$trace is named in what is installed"
done
for internal in connectioncount.h contentedit.h jsonreader.h objecttree.h wildcard.h wirevalue.h zstream.h; do
    [ -z "$(find "$prefix/include" -name "$internal")" ] || fail "$internal is installed"
done
# Each installed header may include only installed headers.
for header in "$prefix"/include/*/*.h; do
    echo "#include <$(basename "$header")>"
done >"$work/all.cpp"
cat "$source/main.cpp" >>"$work/all.cpp"

# The client finds the support library beside itself. The files are compared, not their paths, since
# the loader may spell a path with "..".
beside=$(LC_ALL=C ldd "$prefix/$libdir/libtrelanclient.so.1" |
    sed -n 's/.*libmorvikcore.so.1 => \(.*\) (0x.*/\1/p')
[ "$beside" -ef "$prefix/$libdir/libmorvikcore.so.1" ] || fail "support library is '$beside'"
echo "ok: the support library is found beside the client"

"$cmake" -S "$source" -B "$work/cmake" -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/cmake" >/dev/null
check_program "CMake" "$work/cmake/thermometer"
columns="Name Publisher Time Content celsius "
expect "CMake, models" "$columns" "$(run "$work/cmake/columns" C)"

# The programs of the tutorial, built as it says.
"$cmake" -S "$source/../../../examples/tutorial" -B "$work/tutorial" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/tutorial" >/dev/null || fail "the programs of the tutorial do not build"
echo "ok: the programs of the tutorial build"

# The library has translations built in, too. A text that only the installed folder has shows that the
# library looks there first.
qm="$prefix/$datadir/morvik/translations/trelanclient_de.qm"
[ -f "$qm" ] || fail "the translation is not installed"
cp "$qm" "$work/trelanclient_de.qm"
printf '%s' '<TS version="2.1" language="de"><context><name>QObject</name><message>
<source>Unsupported request</source><translation>installiert</translation>
</message></context></TS>' >"$work/own.ts"
"$LRELEASE" -silent "$work/own.ts" -qm "$qm"
expect "installed translation" "a.b 1.2.1 installiert" "$(run "$work/cmake/thermometer" de_DE.UTF-8)"
cp "$work/trelanclient_de.qm" "$qm"

export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
expect "pkg-config version" "1.2.1" "$(pkg-config --modversion trelanclient)"
# pkg-config quotes paths for a shell: eval takes the quotes away.
eval "\"$compiler\" -std=c++17 $flags \"$work/all.cpp\" -o \"$work/consumer\" \
    $(pkg-config --cflags --libs trelanclient trelanmodels) \"-Wl,-rpath,$prefix/$libdir\""
check_program "pkg-config" "$work/consumer"
eval "\"$compiler\" -std=c++17 $flags \"$source/columns.cpp\" -o \"$work/columns\" \
    $(pkg-config --cflags --libs trelanmodels) \"-Wl,-rpath,$prefix/$libdir\""
expect "pkg-config, models" "$columns" "$(run "$work/columns" C)"
