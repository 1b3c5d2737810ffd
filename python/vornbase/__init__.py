"""What every part of the debugger uses: its log and its view of the platform."""
