# Turns the output of lowdown(1) for docs/administration.md into a manual page with the usual sections.
/^\.SH$/ {
    N
    N
    s/.*/.SH NAME\ntelvora-administration \\- install, configure and remove telvorad\n.SH DESCRIPTION/
}
/^\.SS$/ {
    N
    N
    s/^\.SS/.SH/
    s/\n\.[LP]P$//
}
s/\\fC/\\fB/g
