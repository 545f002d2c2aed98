# Turns the header's conventions into the main page and its sections into groups, line for line.
sub(/@file vswitchctl\.h/, "@mainpage Conventions") { print; next }
/^\/\* ==== .* =+ \*\/$/ {
    title = $0
    gsub(/^\/\* ==== | =+ \*\/$/, "", title)
    name = tolower(title)
    gsub(/[^a-z0-9]+/, "_", name)
    printf "%s/** @defgroup %s %s\n", open ? "/** @} */ " : "", name, title
    getline  # the blank line below a heading
    print "@{ */"
    open = 1
    next
}
/^#ifdef __cplusplus$/ && open { print "/** @} */"; open = 0 }
{ print }
