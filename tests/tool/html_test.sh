#!/bin/bash
# Opens the page of "keywarden log --html" in a headless browser and checks its content: the operations,
# the bars and their positions, the escaping of markup in a log, and that the page has no external
# resources. Prints "ok NAME" or "FAIL NAME: reason" for each check, then the counts. The status is 1 if
# a check failed.
#   --picture PNG  also makes the picture for the documentation
set -euo pipefail

usage="usage: tests/tool/html_test.sh [--picture PNG]"
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
tool=$root/build/windows/bin/keywarden.exe
# shellcheck source=tests/support/checks.sh
. "$root/tests/support/checks.sh"

# browse ARGUMENTS...: runs the browser with an empty profile and without background network access.
browse()
{
    timeout 120 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
        --disable-background-networking --disable-component-update --disable-sync \
        --hide-scrollbars --user-data-dir="$work/profile" "$@" 2>"$work/browser.log"
}

# The page with an additional script that writes down the browser's layout, a line for each operation:
# "name bars=N overlaps=N outside=N thin=N named=N failed=N rows=N widest=PERCENT".
measuredPage()
{
    cat "$1"
    cat <<'SCRIPT'
<pre id="measured"></pre>
<script>
const lines = [];
for (const operation of document.querySelectorAll(".operation")) {
  const frame = operation.querySelector(".line").getBoundingClientRect();
  const bars = [...operation.querySelectorAll(".line .call")];
  const places = bars.map(bar => bar.getBoundingClientRect());
  const count = test => places.filter(test).length;
  lines.push([operation.querySelector("b").textContent, "bars=" + bars.length,
    "overlaps=" + count((p, i) => i > 0 && p.left < places[i - 1].left),
    "outside=" + count(p => p.left < frame.left - 1 || p.left > frame.right + 1),
    "thin=" + count(p => !(p.width >= 1)), "named=" + operation.querySelectorAll(".line span").length,
    "failed=" + operation.querySelectorAll(".line .bad").length,
    "rows=" + operation.querySelectorAll(".calls tr").length,
    "widest=" + Math.round(Math.max(0, ...places.map(p => p.width)) / frame.width * 100)].join(" "));
}
document.getElementById("measured").textContent = lines.join("\n");
</script>
SCRIPT
}

# measured NAME: prints the layout of the operations of that name.
measured()
{
    grep "^$1 " "$work/measured" || true
}

checkOperations()
{
    local names
    names=$(cut -d ' ' -f 1 "$work/measured" | paste -sd ' ')
    [ "$names" = "OpenProvider OpenKey SignHash SignHash Decrypt" ] || echo "found: $names"
}

# checkBars NAME N TEXT: the layout of the Nth operation of that name contains TEXT.
checkBars()
{
    local line
    line=$(measured "$1" | sed -n "$2p")
    [[ $line == *" $3"* ]] || echo "expected $3, found: $line"
}

checkPlaces()
{
    grep -vE ' overlaps=0 outside=0 thin=0 ' "$work/measured" || true
}

checkMarkup()
{
    # The script in the log would change the title if the browser ran it.
    grep -q '<title>sample.log</title>' "$work/dom.html" || echo "the title was changed"
    grep -q '&lt;script&gt;document.title' "$work/dom.html" || echo "the text is not there"
}

checkAlone()
{
    grep -oE '(src|href)=|url\(|@import|https?:' "$work/page.html" | head -n 1 || true
}

checkSecrets()
{
    grep -o 'C35A17E18D' "$work/page.html" | head -n 1 || true
}

checkPicture()
{
    local size colours
    size=$(identify -format '%wx%h' "$work/page.png")
    [ "$size" = 1100x900 ] || echo "it is $size"
    # Without its style, the page would not have these colours.
    colours=$(convert "$work/page.png" -format %c histogram:info: |
        grep -ciE '#(2F6F9A|B3261E|C9D6DF|F0F3F6)' || true)
    [ "$colours" -eq 4 ] || echo "$colours of the 4 colours of bars and line are in it"
}

# drawPage LOG PAGE: writes the page with the tool.
drawPage()
{
    "$root/cmake/run-under-wine" "$tool" log "Z:$1" --html "Z:$2" --force >"$work/tool.log" 2>&1 ||
        cat "$work/tool.log"
}

# takePicture PAGE PNG SIZE
takePicture()
{
    browse --window-size="$3" --screenshot="$2" "file://$1" || cat "$work/browser.log"
}

# makePicture PNG: the picture of the same log without the lines that only these checks need.
makePicture()
{
    local log=$work/nvksprovider-20260304.log
    grep -v 'script\|SharedSecret' "$here/sample.log" >"$log"
    drawPage "$log" "$work/picture.html"
    takePicture "$work/picture.html" "$work/picture.png" 1000,880
    convert "$work/picture.png" -strip +dither -colors 64 "PNG8:$1"
}

picture=
if [ "${1:-}" = --picture ] && [ "$#" -eq 2 ]; then
    picture=$2
elif [ "$#" -gt 0 ]; then
    echo "$usage" >&2
    exit 2
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo "checks of the page of keywarden log"
drawPage "$here/sample.log" "$work/page.html"
measuredPage "$work/page.html" >"$work/measured.html"
browse --dump-dom "file://$work/measured.html" >"$work/dom.html" || cat "$work/browser.log"
sed -n '/<pre id="measured">/,/<\/pre>/p' "$work/dom.html" |
    sed -e 's/.*<pre id="measured">//' -e 's/<\/pre>.*//' -e '/^$/d' >"$work/measured"
takePicture "$work/page.html" "$work/page.png" 1100,900
[ -z "$picture" ] || makePicture "$picture"

check "each operation has its line" checkOperations
check "a bar for each call" checkBars SignHash 1 "bars=12 "
check "a row for each call" checkBars SignHash 1 "overlaps=0 outside=0 thin=0 named=3 failed=0 rows=12"
check "a bar is as long as its share of the time" checkBars SignHash 1 "widest=48"
check "the failed call is marked" checkBars SignHash 2 "overlaps=0 outside=0 thin=0 named=2 failed=1"
check "the call without return is marked" checkBars Decrypt 1 "bars=6 overlaps=0 outside=0 thin=0 named=3 failed=1"
check "bars have a width, their order and stay inside" checkPlaces
check "markup in a log stays text" checkMarkup
check "nothing is fetched" checkAlone
check "no secret is shown" checkSecrets
check "the picture has its colours" checkPicture
echo "checks of the page: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
