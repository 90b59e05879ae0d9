#!/usr/bin/env bash
# The farm test: a one-machine Slurm cluster (scripts/slurm-local.sh) renders a 24-frame flow as
# 4 array tasks with `kestrion submit --wait`, and the frames equal a one-process render byte for
# byte. Then again with a clip frame missing for a moment: the task that meets it fails with
# status 75, goes back in the queue, and renders the rest of its chunk on its second run once the
# frame is back.
#
#   farm_test.sh KESTRION SOURCE_FOLDER
#
# Exit 77 (skipped) where the cluster cannot start: it needs root.
set -euo pipefail
kestrion="$1"
source_folder="$2"

skip() {
  echo "farm test skipped: $*"
  exit 77
}
fail() {
  echo "farm test failed: $*"
  exit 1
}
[ "$(id -u)" -eq 0 ] || skip "starting a local Slurm cluster needs root"

# One farm test at a time on a machine: they share the local cluster. The daemons must not
# inherit this lock.
exec 8>"${TMPDIR:-/tmp}/kestrion-farm-test.lock"
flock 8
slurm_local=(bash "$source_folder/scripts/slurm-local.sh")
started_here=0
"${slurm_local[@]}" status || started_here=1
setting="$("${slurm_local[@]}" up 8>&-)" || skip "the local cluster did not start (see above)"
eval "$setting"

work="$(mktemp -d)"
cleanup() {
  cd /
  rm -rf "$work"
  if [ "$started_here" = 1 ]; then "${slurm_local[@]}" down; fi
}
trap cleanup EXIT
cd "$work"

# 24 distinct frames of 160 x 90: the example plate's 8 frames looped, graded a little more at
# each frame.
cp -r "$source_folder/examples/media" media
cat >make_clip.json <<'EOF'
{"kestrion": 1, "range": [1, 24], "preferences": {"video": {"width": 160, "height": 90}}, "tools": {
  "Loader1": {"class": "Loader", "inputs": {"Filename": "media/plate.####.png", "Loop": 1}},
  "Gain1": {"class": "ColorGain", "inputs": {"Gain Red": {"keys": [[1, 0.5], [24, 1.5]]}, "Image": "Loader1"}},
  "Saver1": {"class": "Saver", "inputs": {"Filename": "clip/shot.####.png", "Image": "Gain1"}}}}
EOF
cat >shot.json <<'EOF'
{"kestrion": 1, "range": [1, 24], "preferences": {"video": {"width": 160, "height": 90}}, "tools": {
  "Loader1": {"class": "Loader", "inputs": {"Filename": "clip/shot.####.png"}},
  "Grade1": {"class": "ColorGain", "inputs": {"Gain Blue": 0.8, "Gamma Green": 1.4, "Image": "Loader1"}},
  "Saver1": {"class": "Saver", "inputs": {"Filename": "out/shot.####.png", "Image": "Grade1"}}}}
EOF
"$kestrion" render make_clip.json 2>/dev/null || fail "the clip did not render"
"$kestrion" render shot.json 2>/dev/null || fail "the one-process render failed"
mv out reference

same_frames() {
  local n
  [ "$(ls out | wc -l)" = 24 ] || fail "$1: $(ls out | wc -l) frames written, not 24"
  for n in $(seq -f %04g 1 24); do
    cmp -s "reference/shot.$n.png" "out/shot.$n.png" || fail "$1: frame $n differs from the one-process render"
  done
}

echo "== 4 tasks"
"$kestrion" submit shot.json -F 1-24 --tasks 4 --wait || fail "submit --wait gave status $?"
same_frames "4 tasks"

echo "== 4 tasks, a clip frame of task 3 (frames 13-18) missing until that task has met it"
rm -rf out
mv clip/shot.0015.png held.png
"$kestrion" submit shot.json -F 1-24 --tasks 4 --wait >job 2>wait.log &
submit=$!
log=""
for _ in $(seq 240); do
  job="$(cat job)"
  if [ -n "$job" ] && grep -q "back in the queue" "shot.json.kestrion-logs/${job}_3.log" 2>/dev/null; then
    log="shot.json.kestrion-logs/${job}_3.log"
    break
  fi
  kill -0 "$submit" 2>/dev/null || break
  sleep 0.5
done
mv held.png clip/shot.0015.png
wait "$submit" || { cat wait.log; fail "submit --wait gave status $? after the frame came back"; }
cat wait.log
[ -n "$log" ] || fail "task 3 never met the missing frame"
grep -q "task 3 of job $job, run 2" "$log" || { cat "$log"; fail "task 3 did not run a second time"; }
grep -q "frame 14 already on disk" "$log" || { cat "$log"; fail "the second run did not resume"; }
same_frames "after the requeue"
echo "farm test passed"
