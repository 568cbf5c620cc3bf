#!/bin/bash
# The installed files that no compiler has looked at: desktop file, icon, manual pages, completions, udev rule.
#   check_files.sh PREFIX_DIR       (/usr of a package's tree, or any prefix that was installed to)
set -euo pipefail
top=$1
status=0
# complain WHAT: a finding; the rest is looked at all the same.
complain() { echo "FAILED: $*" >&2; status=1; }
# expect_silence WHAT COMMAND...: ends well and says nothing.
expect_silence() {
  local what=$1 said
  shift
  said=$("$@" 2>&1) || complain "$what: ended with $?"
  [[ -z $said ]] || complain "$what: $said"
}

desktop=$top/share/applications/mirn-console.desktop
expect_silence "desktop file" desktop-file-validate "$desktop"
[[ -x $top/bin/$(sed -n 's/^Exec=//p' "$desktop") ]] || complain "the desktop file names no installed program"
icon=$top/share/icons/hicolor/scalable/apps/$(sed -n 's/^Icon=//p' "$desktop").svg
expect_silence "icon" python3 -c 'import sys, xml.etree.ElementTree as tree
root = tree.parse(sys.argv[1]).getroot()
assert root.tag == "{http://www.w3.org/2000/svg}svg" and len(root) > 0 and root.get("viewBox"), "no drawing"' "$icon"

for program in "$top"/bin/*; do
  name=$(basename "$program")
  page=$(find "$top/share/man/man1" -name "$name.1*")
  [[ -n $page ]] || { complain "$name has no manual page"; continue; }
  expect_silence "manual page of $name" mandoc -T lint -W warning "$page"
  plain=$(mandoc -T ascii "$page" | sed 's/.\x08//g')
  # Every option that the program tells of is in its page.
  for option in $("$program" --help | grep -oE -- '--[a-z][a-z-]*' | sort -u); do
    case $name:$option in mirnctl:--virtual-*) continue ;; esac  # the page points to --help for these
    grep -qF -- "$option" <<<"$plain" || complain "the manual page of $name lacks $option"
  done
done

expect_silence "bash completion" bash -n "$top/share/bash-completion/completions/mirnctl"
expect_silence "zsh completion" zsh -n "$top/share/zsh/vendor-completions/_mirnctl"
expect_silence "fish completion" fish --no-execute "$top/share/fish/vendor_completions.d/mirnctl.fish"

# The rule: the keys that it may use, labels that exist, four digits for each identifier; and the tag for both nodes,
# under a name that comes before the rules that act on the tag.
expect_silence "udev rule" python3 - "$top/lib/udev/rules.d/70-mirn.rules" <<'PYTHON'
import os, re, sys
path = sys.argv[1]
assert os.path.basename(path) < "73-seat-late.rules", "too late for the tag to have an effect"
lines = [line.strip() for line in open(path, encoding="ascii")]
token = re.compile(r'(ACTION|SUBSYSTEM|ATTRS\{(?:idVendor|idProduct)\}|TAG|GOTO|LABEL)(==|\+=|=)"([^"]*)"$')
labels, jumps, tagged = set(), set(), {}
for number, line in enumerate(lines, 1):
    if not line or line.startswith("#"):
        continue
    parts = [token.match(part.strip()) for part in line.split(",")]
    assert all(parts), "line %d can't be read: %s" % (number, line)
    facts = {part[1]: part[3] for part in parts}
    for part in parts:
        if part[1].startswith("ATTRS"):
            assert part[2] == "==" and re.fullmatch("[0-9a-f]{4}", part[3]), "line %d: %s" % (number, part[0])
    labels |= {facts["LABEL"]} if "LABEL" in facts else set()
    jumps |= {facts["GOTO"]} if "GOTO" in facts else set()
    if facts.get("TAG") == "uaccess":
        tagged.setdefault(facts["SUBSYSTEM"], set()).add((facts["ATTRS{idVendor}"], facts["ATTRS{idProduct}"]))
assert jumps <= labels, "no label for %s" % (jumps - labels)
assert set(tagged) == {"hidraw", "video4linux"}, "tagged are %s" % sorted(tagged)
assert tagged["hidraw"] == tagged["video4linux"], "the two nodes differ: %s" % tagged
PYTHON
# Newer versions of udev check rules themselves.
if udevadm verify --help >/dev/null 2>&1; then
  udevadm verify "$top/lib/udev/rules.d/70-mirn.rules" >/dev/null || complain "udevadm verify"
fi
[[ $status -ne 0 ]] || echo "desktop file, icon, manual pages, completions and udev rule are valid"
exit $status
