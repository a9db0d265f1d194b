# SPDX-License-Identifier: Apache-2.0
# Documents as Doxygen reads them: it gives headings other names, so links to them lead to the page.
s/\[([^]]*)\]\(#[^)]*\)/\1/g
s/(\]\([^)#]+\.md)#[^)]*\)/\1)/g
# Names of pages are shown as they stand.
:heading
s/^(# .*)`([^`]*)`/\1\2/
t heading
