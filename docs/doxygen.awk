# SPDX-License-Identifier: Apache-2.0
# The public headers as Doxygen reads them: their comments with two stars, their sections as groups of names.
function text(line) { gsub(/</, "\\&lt;", line); gsub(/[@%#]/, "\\\\&", line); gsub(/\\[*]/, "*", line); return line }
# A line inside a comment. What is indented, and no list, stands as it is written: tables and programs.
function inner(line) {
  if (line ~ /^ \* +- /) item = 1
  else if (line ~ /^ \*( [^ ]|$)/) item = 0
  if (line ~ /^ \*   +[^ ]/ && !item && line !~ /\*\/$/) {
    if (!asIs) print " * @verbatim"
    asIs = 1
    return substr(line, 5)
  }
  if (asIs) print "@endverbatim"
  asIs = 0
  return text(line)
}
NR == 1 && /SPDX/ { next }
/^\/\* ---- / {
  title = $0
  gsub(/^\/\* -+ | -+( \*\/)?$/, "", title)
  if (open) print "/** @} */"
  open = 1
  printf "/** @name %s\n@{ */\n", title
  if ($0 !~ /\*\/$/) { print "/**"; inside = 1 }
  next
}
/^\/\*/ {
  sub(/^\/\*/, first ? "/**" : "/** @file\n")
  first = 1
  inside = $0 !~ /\*\/$/
  line = $0; start = ""; if (sub(/^\/\*\* @file\n?/, "", line)) start = "/** @file\n"; print start text(line)
  next
}
inside { inside = $0 !~ /\*\/$/; print inner($0); next }
/[^ ].*\/\* .*\*\/$/ { sub(/\/\* /, "/**< "); at = index($0, "/**<"); print substr($0, 1, at + 3) text(substr($0, at + 4)); next }
/^ *\/\* .*[^\/]$/ { sub(/\/\*/, "/**"); print text($0); next }
{ print }
END { if (open) print "/** @} */" }
