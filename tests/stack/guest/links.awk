# SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#
# The links of a subnet, a line an end, out of its own text or of what ibnetdiscover prints.
function guid(text) { sub(/^.*-/, "", text); return "0x" substr(text, match(text, /[1-9a-f]/)) }
$1 == "switch" || $1 == "adapter" { split($4, g, "/"); id[$2] = g[1] }
$1 == "link" {
    rate = NF > 5 ? $6 : "4xQDR"
    print id[$2], $3, id[$4], $5, rate
    print id[$4], $5, id[$2], $3, rate
}
/^(Switch|Ca)/ { split($0, q, "\""); here = guid(q[2]) }
/^\[/ {
    split($0, q, "\"")
    port = substr(q[1], 2) + 0
    there = substr(q[3], 2) + 0
    print here, port, guid(q[2]), there, $NF
}
