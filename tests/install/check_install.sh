#!/usr/bin/env bash
# Installs the build tree into a fresh prefix, then, without LD_LIBRARY_PATH,
# runs the installed tool and a C program built against the installed package
# through find_package and through pkg-config. The program refers to every
# function of the public headers, so a missing export or a static library
# that lacks a dependency fails to link.
#
#   check_install.sh BUILD_DIR WORK_DIR CONSUMER_DIR INCLUDE_DIR [HEIF_FILE]
set -euo pipefail
build_dir=$(realpath "$1") work=$(realpath -m "$2") consumer=$(realpath "$3")
include_dir=$(realpath "$4") sample=${5:-}
unset LD_LIBRARY_PATH
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name tarn.pc)")/..
kind=shared
[ -f "$libdir/libtarn.a" ] && kind=static

tool=$prefix/bin/tarn
if [ -x "$tool" ]; then
  "$tool" --version
  if [ "$kind" = shared ]; then
    # Only a relative run path works in every prefix; an absolute one could
    # silently pick up the build tree's library.
    runpath=$(readelf -d "$tool" | sed -n 's/.*R\(UN\)\?PATH.*\[\(.*\)\]/\2/p')
    case "$runpath" in
      '$ORIGIN/'*) ;;
      *) echo "installed tarn has run path '$runpath', expected \$ORIGIN/..."; exit 1 ;;
    esac
  fi
  if [ -n "$sample" ] && [ -f "$sample" ]; then "$tool" info "$sample" >/dev/null; fi
fi

{
  echo '#include <tarn/tarn.h>'
  echo 'typedef void (*tarn_any_fn)(void);'
  echo 'const tarn_any_fn tarn_api_table[] = {'
  "$(dirname "$0")/api_names.sh" "$include_dir" | sed 's/.*/  (tarn_any_fn)&,/'
  echo '};'
  echo 'const unsigned tarn_api_count = sizeof tarn_api_table / sizeof tarn_api_table[0];'
} >"$work/api_table.c"

cmake -S "$consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DAPI_TABLE="$work/api_table.c" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

export PKG_CONFIG_PATH=$libdir/pkgconfig
if [ "$kind" = static ]; then
  flags=$(pkg-config --static --cflags --libs tarn)
else
  flags="$(pkg-config --cflags --libs tarn) -Wl,-rpath,$(pkg-config --variable=libdir tarn)"
fi
cc -std=c99 -Wall -Werror -o "$work/pkgconfig_consumer" "$consumer/main.c" "$work/api_table.c" $flags
"$work/pkgconfig_consumer"
echo "installed $kind package works: tool, find_package and pkg-config"
