# SPDX-License-Identifier: Apache-2.0
# A header for Doxygen: its plain comments as the kind that it reads. The comment at the top is the file's,
# one behind a member is that member's. Drawings and examples keep their lines.
function words(text) { gsub(/\\/, "\\\\\\\\", text); gsub(/[<>#@&]/, "\\\\&", text); return text }
/^\/\/ SPDX/ { print ""; next }
/^struct std::hash/ { sub(/std::hash/, "hash") }  # its namespace is nobody's here
!top && /^\/\// { top = 1; inTop = 1; print "/// @file"; }
!/^\/\// { inTop = 0 }
match($0, /^ *\/\/( |$)/) {
  text = substr($0, RLENGTH + 1)
  if (text ~ /^  / && (drawing || blank)) {
    if (!drawing) print "/// @verbatim"
    drawing = 1
    print "/// " text
    next
  }
  blank = text == ""
  if (drawing && blank) { print "///"; next }
  if (drawing) { drawing = 0; print "/// @endverbatim" }
  if (match(text, /^(Invariants|Ownership|Threading|Cost|Errors): /)) {
    print "/// @par " substr(text, 1, RLENGTH - 2)
    text = substr(text, RLENGTH + 1)
  }
  print "/// " words(text)
  next
}
{ blank = 0 }
drawing { drawing = 0; print "/// @endverbatim" }
match($0, /[;,{}] +\/\/ /) {
  code = substr($0, 1, RSTART)
  print code " ///< " words(substr($0, RSTART + RLENGTH))
  next
}
{ print }
