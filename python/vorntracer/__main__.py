"""`python -m vorntracer`; see vorntracer.command_line.

The debugger clears this module's names before it runs a program, so nothing may come after the call.
"""

from vorntracer.command_line import main

main()
