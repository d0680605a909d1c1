@echo off
rem selftest [/y] [/only TEXT] | /clean: see README.txt. Run it from an administrator's prompt.
"%~dp0selftest.exe" %*
exit /b %errorlevel%
