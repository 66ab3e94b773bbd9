#!/usr/bin/env bash
# Compatibility: unmodified Debian programs show the same through the layer
# as directly, by kam-compare's methods (see its --help).   compat.sh ROW BUILD_DIR
set -uo pipefail
row=$1 build=$(cd "$2" && pwd)

sdl=/usr/libexec/installed-tests/SDL2
es2gears=$(command -v es2gears_x11 || ls /usr/bin/es2gears_x11.* 2>/dev/null | head -n1)
mpv="mpv --no-config --no-terminal --vo=gpu --gpu-context=x11egl --opengl-es=yes --untimed --no-audio --no-osc
     --osd-level=0 --geometry=640x480+0+0 --deband=yes --sigmoid-upscaling=yes --dither-depth=8"
# A still picture: every frame is the same, so any frame number compares.
still="av://lavfi:mandelbrot=s=320x240,loop=loop=-1:size=1"
glmark2="glmark2-es2 --reuse-context -s 320x240"
export SDL_VIDEO_X11_FORCE_EGL=1

# mpv 0.35's 6-tap scalers leave 2 of every 8 floats of their weight texture
# uninitialised (reinit_scaler); GL_LINEAR mixes them in with weight 0, and a
# NaN left there blacks out the picture, directly or through the layer as heap
# use goes: MALLOC_PERTURB_ fills the block with a finite pattern.
# row               | method  | program and arguments
table=$(cat <<'EOF'
testgles2           | screen  | $sdl/testgles2 --geometry 320x240
testgles2_windows   | screen  | $sdl/testgles2 --windows 2 --geometry 320x240
mpv                 | screen  | env MALLOC_PERTURB_=85 $mpv --scale=spline36 $still
es2gears            | running | $es2gears
retrace_testgles2   | retrace | $sdl/testgles2 --geometry 320x240
retrace_mpv         | retrace | env MALLOC_PERTURB_=85 $mpv --scale=spline36 --frames=300 av://lavfi:testsrc2=s=320x240
retrace_es2gears    | retrace | $es2gears
retrace_glmark2     | retrace | $glmark2 -b shading:shading=phong:duration=1 -b texture:texture-filter=mipmap:duration=1 -b bump:bump-render=normals:duration=1 -b refract:duration=1
EOF
)
line=$(grep -E "^$row +\|" <<<"$table") || { echo "FAIL: unknown row $row" >&2; exit 1; }
IFS='|' read -r _ method cmd <<<"$line"
eval "set -- $cmd"
# A failed run keeps its logs and images under $build/e2e-failed/ for a look.
"$build/kam-compare" --method "${method// /}" --keep "$build/e2e-failed/$row" -- "$@" || { echo "FAIL: $row" >&2; exit 1; }
echo "PASS: $row"
