/* The shared library is the core archive linked whole; this unit only gives
 * the target a source of its own. */
typedef int nkr_library_entry_unused;
