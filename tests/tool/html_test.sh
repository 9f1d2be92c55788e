#!/bin/bash
# Opens the page of "keywarden log --html" in a headless browser and checks its content: the operations,
# the bars and their positions, the escaping of markup in a log, the filters and links, a page of 300 MB of
# log, and that the page has no external resources. Checks "--format chrome-trace" as well. Prints "ok NAME" or "FAIL NAME: reason" for each check, then the counts. The status is 1 if
# a check failed.
#   --picture PNG  also makes the picture for the documentation
set -euo pipefail

usage="usage: tests/tool/html_test.sh [--picture PNG]"
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
tool=${KEYWARDEN_BUILD:-$root/build/windows}/bin/keywarden.exe
# shellcheck source=tests/support/checks.sh
. "$root/tests/support/checks.sh"

# browse ARGUMENTS...: runs the browser with an empty profile and without background network access.
browse()
{
    timeout 120 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
        --disable-background-networking --disable-component-update --disable-sync \
        --hide-scrollbars --user-data-dir="$work/profile" "$@" 2>"$work/browser.log"
}

# The page with an additional script that unfolds all and writes down the browser's layout, a line for each
# operation: "name bars=N overlaps=N outside=N thin=N named=N failed=N rows=N widest=PERCENT".
measuredPage()
{
    sed 's/<\/body><\/html>//' "$1"
    cat <<'SCRIPT'
<pre id="measured"></pre>
<script>
document.getElementById("unfold").click();
const lines = [];
const count = document.querySelectorAll(".operation").length;
for (let i = 0; i < count; ++i) {
  // Opening a row makes all rows anew.
  document.querySelectorAll(".operation .head")[i].click();
  const operation = document.querySelectorAll(".operation")[i];
  const line = operation.querySelector(".line");
  const bars = [...operation.querySelectorAll(".line .call")];
  const places = bars.map(bar => bar.getBoundingClientRect());
  const frame = line ? line.getBoundingClientRect() : operation.getBoundingClientRect();
  const below = operation.querySelector(".details").getBoundingClientRect().bottom;
  const countOf = test => places.filter(test).length;
  lines.push([operation.querySelector("b").textContent, "bars=" + bars.length,
    "overlaps=" + countOf((p, i) => i > 0 && p.left < places[i - 1].left),
    "outside=" + countOf(p => p.left < frame.left - 1 || p.left > frame.right + 1),
    "thin=" + countOf(p => !(p.width >= 1)),
    "named=" + bars.filter(bar => bar.textContent !== "").length,
    "failed=" + operation.querySelectorAll(".line .failed").length,
    "rows=" + operation.querySelectorAll(".step").length,
    "cut=" + (below > operation.getBoundingClientRect().bottom + 1 ? 1 : 0),
    "widest=" + Math.round(Math.max(0, ...places.map(p => p.width)) / frame.width * 100)].join(" "));
  // Else the last rows would be off the screen, where there are none.
  operation.querySelector(".head").click();
}
document.getElementById("measured").textContent = lines.join("\n");
</script></body></html>
SCRIPT
}

# used PAGE SCRIPT: prints what the script returns in the page, after it was loaded.
used()
{
    {
        sed 's/<\/body><\/html>//' "$1"
        echo "<pre id=\"measured\"></pre><script>"
        echo "document.getElementById('measured').textContent = (function () { $2 })();"
        echo "</script></body></html>"
    } >"$work/used.html"
    browse --dump-dom "file://$work/used.html${3:-}" >"$work/used.dom" || cat "$work/browser.log"
    measuredText "$work/used.dom"
}

# measuredText DOM: prints what a script has measured.
measuredText()
{
    perl -0777 -ne 'print "$1\n" if /<pre id="measured">(.*?)<\/pre>/s' "$1"
}

# shows WANTED SCRIPT [ADDRESS]: the script returns that in the page of the sample.
shows()
{
    local found
    found=$(used "$work/page.html" "$2" "${3:-}")
    [ "$found" = "$1" ] || echo "expected $1, found: $found"
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
    grep -vE ' overlaps=0 outside=0 thin=0 .* cut=0 ' "$work/measured" || true
}

# The script in the log would change the title if the browser ran it.
checkMarkup()
{
    shows "sample.log true" "return document.title + ' ' + [...document.querySelectorAll('.error')].some(
      error => error.textContent.includes('<scr' + 'ipt>document.title'));" "#0-130"
}

checkAlone()
{
    grep -oE 'src=|href="|url\(|@import|https?:' "$work/page.html" | head -n 1 || true
}

checkSecrets()
{
    grep -o 'C35A17E18D' "$work/page.html" | head -n 1 || true
}

checkPicture()
{
    local size colours
    size=$(identify -format '%wx%h' "$1")
    [ "$size" = 1100x900 ] || echo "it is $size"
    # Without its style, the page would not have these colours.
    colours=$(convert "$1" -format %c histogram:info: | grep -ciE "#($2)" || true)
    [ "$colours" -ge 4 ] || echo "$colours of the 4 colours of bars and line are in it"
}

# ---- what a person does with the page. The scripts are JavaScript.

names="[...document.querySelectorAll('#list > div')].map(row =>
  row.className === 'fold' ? 'fold' : row.querySelector('b').textContent).join(' ')"

# choose ID TEXT: chooses that entry of a filter.
choose()
{
    echo "{ const select = document.getElementById('$1');
      select.value = [...select.options].find(option => option.textContent.includes('$2')).value;
      select.dispatchEvent(new Event('change')); }"
}

checkFailures()
{
    shows "2 4" "return document.querySelectorAll('#kinds tr:not(:first-child)').length + ' ' +
      [...document.querySelectorAll('#kinds td')].filter(cell =>
        /^(Decrypt|not finished|SignHash|The PIN is wrong. The token counts the attempt.)\$/.test(cell.textContent)
      ).length;"
    shows "true" "return document.getElementById('kinds').getBoundingClientRect().top <
      document.getElementById('figures').getBoundingClientRect().top;"
}

# The row of line 130 is open, marked and in sight.
checkLink()
{
    shows "SignHash true true" "const row = document.querySelector('.chosen');
      const place = row.getBoundingClientRect();
      return row.querySelector('b').textContent + ' ' + (row.querySelector('.details') !== null) + ' ' +
        (place.top >= 0 && place.top < innerHeight);" "#0-130"
    shows "#0-160 #0-130" "return [...document.querySelectorAll('#kinds a')].map(a =>
      a.getAttribute('href')).join(' ');"
}

checkFold()
{
    shows "OpenProvider fold SignHash SignHash Decrypt" "return $names;"
    shows "OpenProvider OpenKey SignHash SignHash Decrypt" \
        "document.querySelector('.fold .head').click(); return $names;"
}

checkFilters()
{
    shows "SignHash SignHash 2 of 5" "$(choose operation SignHash)
      return $names + ' ' + document.getElementById('shown').textContent;"
    shows "SignHash Decrypt" "$(choose result 'failed or not finished') return $names;"
    shows "SignHash" "$(choose result CKR_PIN_INCORRECT) return $names;"
    shows "OpenProvider fold SignHash SignHash Decrypt" "$(choose process 04312) return $names;"
    shows "OpenProvider fold SignHash SignHash Decrypt" "$(choose thread 1a2b3c4d) return $names;"
    shows "Decrypt" "const search = document.getElementById('search'); search.value = 'c_decrypt';
      search.dispatchEvent(new Event('input')); return $names;"
}

# A link shows its operation even if a filter hides it.
checkLinkPastFilter()
{
    shows "SignHash" "$(choose operation OpenProvider)
      location.hash = '#0-130'; dispatchEvent(new HashChangeEvent('hashchange'));
      return document.querySelector('.chosen b').textContent;"
}

# ---- a large log

# checkLarge: the page of 300 MB has a few rows, at each end, and says how long it took to open.
checkLarge()
{
    local found rows time
    "$here/large_log.py" "$here/sample.log" 300 >"$work/large.log"
    drawPage "$work/large.log" "$work/large.html"
    found=$(used "$work/large.html" "const time = Math.round(performance.now());
      const count = document.querySelectorAll('#list > div').length;
      scrollTo(0, document.body.scrollHeight);
      dispatchEvent(new Event('scroll'));
      return time + ' ' + count + ' ' + Math.round(document.getElementById('list').offsetHeight / 1000);")
    read -r time rows height <<<"$found"
    [ -n "$height" ] || { echo "nothing was measured: $found"; return; }
    echo "the page of 300 MB: $(stat -c %s "$work/large.html") bytes, opened in $time ms, $rows rows" >&3
    [ "$rows" -ge 5 ] && [ "$rows" -le 100 ] || echo "$rows rows were made"
    [ "$height" -ge 1000 ] || echo "the list is $height thousand pixels high"
    # Two seconds on a machine that does nothing else.
    [ "$time" -le 10000 ] || echo "it took $time ms"
    rm -f "$work/large.log" "$work/large.html" "$work/used.html" "$work/used.dom"
}

# ---- the trace for other viewers

checkTrace()
{
    "$root/cmake/run-under-wine" "$tool" log "Z:$here/sample.log" --format chrome-trace \
        -o "Z:$work/trace.json" >"$work/tool.log" 2>&1 || cat "$work/tool.log"
    "$here/trace_format.py" "$work/trace.json"
    jq -e '[.traceEvents[] | select(.ph == "X" and .cat == "operation") | .name] ==
           ["OpenProvider", "OpenKey", "SignHash", "SignHash", "Decrypt"]' "$work/trace.json" >/dev/null ||
        echo "it has other operations"
}

# drawPage LOG PAGE: writes the page with the tool.
drawPage()
{
    "$root/cmake/run-under-wine" "$tool" log "Z:$1" --html "Z:$2" --force >"$work/tool.log" 2>&1 ||
        cat "$work/tool.log"
}

# takePicture PAGE PNG SIZE [OPTION]
takePicture()
{
    browse ${4:+"$4"} --window-size="$3" --screenshot="$2" "file://$1" || cat "$work/browser.log"
}

# makePicture PNG: the picture of the same log without the lines that only these checks need.
makePicture()
{
    local log=$work/nvksprovider-20260304.log
    grep -v 'script\|SharedSecret' "$here/sample.log" >"$log"
    drawPage "$log" "$work/picture.html"
    takePicture "$work/picture.html" "$work/picture.png" 1000,720
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
measuredText "$work/dom.html" >"$work/measured"
takePicture "$work/page.html" "$work/page.png" 1100,900
takePicture "$work/page.html" "$work/dark.png" 1100,900 --blink-settings=preferredColorScheme=0
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
check "the picture has its colours" checkPicture "$work/page.png" "2F6F9A|B3261E|C9D6DF|F0F3F6"
check "the dark picture has its colours" checkPicture "$work/dark.png" "14191F|3D86B8|4A5A66|222A32"
check "failures come first, with their meaning" checkFailures
check "a link leads to the operation" checkLink
check "operations without token calls are folded" checkFold
check "filters by operation, result, process, thread and text" checkFilters
check "a link shows what a filter hides" checkLinkPastFilter
exec 3>&1
check "the page of a large log has the rows on the screen alone" checkLarge
check "the trace is what its format describes" checkTrace
echo "checks of the page: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
