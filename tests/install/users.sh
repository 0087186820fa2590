#!/usr/bin/env bash
# users.sh moved_prefix | staging_root: programs in C and C++ are built against an installation, by
# pkg-config and by CMake, and run with its library in its sandbox.
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"

case $1 in
moved_prefix)
    quietly cmake --install "$TARVO_BUILD" --prefix "$scratch/before"
    prefix=$scratch/after
    mv "$scratch/before" "$prefix"
    ;;
staging_root)
    DESTDIR=$scratch/root quietly cmake --install "$TARVO_BUILD" --prefix /opt/tarvo
    prefix=$scratch/root/opt/tarvo
    ;;
*) fail "$1 is neither moved_prefix nor staging_root" ;;
esac
library=$prefix/$TARVO_LIBDIR
sandbox=$prefix/bin/tarvo-sandbox
cd "$scratch"

flags=(-Wall -Wextra -Wpedantic -Werror)
export PKG_CONFIG_LIBDIR=$library/pkgconfig
expect "the version for pkg-config" "$TARVO_VERSION" pkg-config --modversion tarvo
read -ra from_pc < <(pkg-config --cflags --libs tarvo)
quietly "$CC" -std=c11 "${flags[@]}" "$here/user/user.c" "${from_pc[@]}" -o pc_user_c
quietly "$CXX" -std=c++20 "${flags[@]}" "$here/user/user.cpp" "${from_pc[@]}" -o pc_user_cpp

quietly cmake -S "$here/user" -B by_cmake -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS="${flags[*]}" -DCMAKE_CXX_FLAGS="${flags[*]}"
quietly cmake --build by_cmake

loaded_by() {
    ldd "$1" | sed -n 's/^.*libtarvo\.so\.0 => \(.*\) (.*/\1/p' | xargs -r realpath
}

# CMake has written into its programs where the library lies; pkg-config leaves that to the caller.
for program in pc_user_c pc_user_cpp by_cmake/user_c by_cmake/user_cpp; do
    run=(env)
    [[ $program != pc_* ]] || run+=("LD_LIBRARY_PATH=$library")
    export -f loaded_by
    expect "the library that $program loads" "$library/libtarvo.so.$TARVO_VERSION" \
        "${run[@]}" bash -c "loaded_by ./$program"
    expect "$program" "ready at 0x00001000" "$sandbox" -- "${run[@]}" "./$program"
done

# The tools find what they need without help.
if grep 'not found' <<<"$(ldd "$prefix"/bin/*)"; then
    fail "the tools do not find the library beside them"
fi
# shellcheck disable=SC2016 # the inner shell expands
"$sandbox" -- sh -euc 'by_cmake/user_c && "$0" list' "$prefix/bin/tarvoctl" >listed
grep -q '\<ring\>' listed || fail "tarvoctl does not list the chunk: $(cat listed)"

expect "Python" "ready at 0x00001000" env PYTHONDONTWRITEBYTECODE=1 \
    "PYTHONPATH=$prefix/$TARVO_PYTHON_DIR" "LD_LIBRARY_PATH=$library" \
    "$sandbox" -- "$TARVO_PYTHON" "$here/user/user.py"
