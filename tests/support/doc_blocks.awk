# SPDX-License-Identifier: Apache-2.0
# Writes the C++ of a Markdown page as one source file: its ```cpp blocks, and what stands in
# <!-- cpp ... --> comments because it is needed but not worth showing, in their order. The includes
# come first, the rest in a namespace of the page's own. Compilers report the page's own lines.
#
#   awk -v page=docs/guide.md -v name=docs_guide_md -f doc_blocks.awk docs/guide.md > docs_guide_md.cc

function line_directive(number) { return "#line " number " \"" page "\"\n" }

function take(text) {
  if (text ~ /^#include/) {
    includes = includes line_directive(NR) text "\n"
  } else {
    if (NR != last + 1) code = code line_directive(NR)
    code = code text "\n"
    last = NR
  }
}

shown && /^[ \t]*```/ { shown = 0; next }
hidden && /^-->/ { hidden = 0; next }
shown || hidden { take($0); next }
/^[ \t]*```(cpp|c\+\+|cc)/ { shown = NR; next }
/^<!-- cpp$/ { hidden = NR; next }
/^<!-- cpp .* -->$/ { take(substr($0, 10, length($0) - 13)); next }

END {
  if (shown || hidden) {
    print page ":" shown + hidden ": a block has no end" > "/dev/stderr"
    exit 1
  }
  printf "%s\nnamespace %s {\n%s}\n", includes, name, code
}
