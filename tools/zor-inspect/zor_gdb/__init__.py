"""What zor-inspect and a plain gdb session know of the runtime's objects.

The modules that import `gdb` run inside gdb: `memory`, `rtti`, `threads`, `locks`, `objects`,
`supervisor`, `model`, `layout`, `death`, `enumerations`, `snapshot` and `printers`. The others run in the
launcher, on the plain data that these hand over: the process has been let go by then, and nothing
that takes time keeps it stopped. `activity` and `typenames` need no gdb and are used on both sides.
"""
