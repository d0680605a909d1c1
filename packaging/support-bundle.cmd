@echo off
rem Collects what support needs into one new folder below work\tmp, and nothing else: logs, dumps, settings, and what
rem Windows says about the program, its processes, its registration, its rights, its port and the Keri software. Only reads.
rem Exit code: 0, 1 when nothing was made, 2 when something could not be copied.
setlocal EnableExtensions DisableDelayedExpansion
set "SERVICE=quorkeri_service.exe"
set "COMPANION=quorkeri_wrapper.exe"
set "KERIKEY=HKLM\SOFTWARE\Wow6432Node\Microsoft\Windows\CurrentVersion\Uninstall\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}"
for %%I in ("%~dp0..") do set "ROOT=%%~fI"
set "BIN=%ROOT%\bin"
set "LOGS=%ROOT%\work\logs"
set "TEMPORARY=%ROOT%\work\tmp"
rem Full paths: a prompt looks into the current directory first, where anybody may have put a program.
set "SYSTEM=%SystemRoot%\System32"

if not exist "%LOGS%\" (
  echo There is no directory "%LOGS%".
  echo This command works in the directory "bin" of an installation. If it lies there, nothing has been logged yet.
  exit /b 1
)

rem A number for a name: dates look different in every country.
set NUMBER=0
:nextName
set /a NUMBER+=1
set "OUT=%TEMPORARY%\support-%NUMBER%"
if exist "%OUT%" goto nextName
if exist "%OUT%.zip" goto nextName
mkdir "%OUT%" 2>nul
if not exist "%OUT%\" (
  echo "%TEMPORARY%" cannot be written: nothing was collected.
  echo Run this command as an administrator, or make room on the disk.
  exit /b 1
)
rem Dumps hold memory: only administrators and SYSTEM may read the bundle.
set RIGHTS=/inheritance:r /grant:r *S-1-5-18:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F
"%SYSTEM%\icacls.exe" "%OUT%" %RIGHTS% >nul 2>nul
mkdir "%OUT%\logs" "%OUT%\dumps" "%OUT%\settings"
set RESULT=0

call :gather "%LOGS%" "service.log*" logs
call :gather "%LOGS%" "dumps.log" logs
call :gather "%ROOT%\work\dumps" "*.dmp" dumps
call :gather "%ROOT%\settings" "testing.ini" settings
call :gather "%ROOT%\settings" "testing.alt.ini" settings
call :gather "%ROOT%\settings" "assert.exclude" settings

set "REPORT=%OUT%\system.txt"
>"%REPORT%" echo Collected %DATE% %TIME% on %COMPUTERNAME% from "%ROOT%"
>>"%REPORT%" echo Dumps hold memory of the process: pass this bundle on only to people who may see that.
call :tell "Windows" ver
call :tell "Health" "%BIN%\quorkeri_health.exe" --json
call :tell "Programs and libraries" dir "%BIN%"
call :tell "Hash of the service" "%SYSTEM%\certutil.exe" -hashfile "%BIN%\%SERVICE%" SHA256
call :tell "Version of the service" "%SYSTEM%\WindowsPowerShell\v1.0\powershell.exe" -NoProfile -NonInteractive -Command "(Get-Item -LiteralPath '%BIN%\%SERVICE%').VersionInfo | Format-List"
call :tell "Logs, dumps and temporary files" dir /s "%ROOT%\work"
call :tell "Registration" "%SYSTEM%\sc.exe" qc "%SERVICE%"
call :tell "State" "%SYSTEM%\sc.exe" query "%SERVICE%"
call :tell "State with process id" "%SYSTEM%\sc.exe" queryex "%SERVICE%"
call :tell "Recovery" "%SYSTEM%\sc.exe" qfailure "%SERVICE%"
call :tell "Registration as it is stored" "%SYSTEM%\reg.exe" query "HKLM\SYSTEM\CurrentControlSet\Services\%SERVICE%"
call :tell "Rights of the directory" "%SYSTEM%\icacls.exe" "%ROOT%"
call :tell "Rights of the programs" "%SYSTEM%\icacls.exe" "%BIN%"
call :tell "Rights of the dumps" "%SYSTEM%\icacls.exe" "%ROOT%\work\dumps"
call :tell "UDP ports" "%SYSTEM%\netstat.exe" -ano -p UDP
call :tell "Events of the service control manager" "%SYSTEM%\wevtutil.exe" qe System /c:200 /rd:true /f:text "/q:*[System[Provider[@Name='Service Control Manager'] and EventID>=7000 and EventID<=7043]]"
call :tell "Registration of the Keri software" "%SYSTEM%\reg.exe" query "%KERIKEY%"
set "KERI="
for /f "tokens=2,*" %%A in ('%SYSTEM%\reg.exe query "%KERIKEY%" /v InstallLocation 2^>nul') do if "%%A"=="REG_SZ" set "KERI=%%B"
if defined KERI call :tell "Files of the Keri software" dir "%KERI%"
call :tell "Process of the service" "%SYSTEM%\tasklist.exe" /v /fi "imagename eq %SERVICE%"
call :tell "Process of the companion" "%SYSTEM%\tasklist.exe" /v /fi "imagename eq %COMPANION%"
if not exist "%REPORT%" set RESULT=2

rem Windows 10 and later can make an archive of it. The folder stays as well.
set "ARCHIVE="
if not exist "%SYSTEM%\tar.exe" goto done
type nul >"%OUT%.zip"
"%SYSTEM%\icacls.exe" "%OUT%.zip" /inheritance:r /grant:r *S-1-5-18:F *S-1-5-32-544:F >nul 2>nul
"%SYSTEM%\tar.exe" -a -c -f "%OUT%.zip" -C "%TEMPORARY%" "support-%NUMBER%" 2>nul
if errorlevel 1 (del "%OUT%.zip") else set "ARCHIVE=%OUT%.zip"

:done
if %RESULT%==2 echo Not everything could be copied. The rest is there.
if defined ARCHIVE echo The support bundle is "%ARCHIVE%", made from the folder of that name.
if not defined ARCHIVE echo The support bundle is the folder "%OUT%".
echo Dumps hold memory of the process: pass the bundle on only to people who may see that.
exit /b %RESULT%

rem :gather DIRECTORY FILES TO: copies the files that exist.
:gather
if not exist "%~1\" exit /b 0
pushd "%~1"
for %%F in (%~2) do call :copyOne "%%~F" "%~3"
popd
exit /b 0

:copyOne
if not exist "%~1" exit /b 0
copy /b /y "%~1" "%OUT%\%~2" >nul 2>nul
if not errorlevel 1 exit /b 0
echo Could not be copied: "%CD%\%~1"
set RESULT=2
exit /b 0

rem :tell TITLE COMMAND...: appends the command's output to the report, and its exit code if it failed.
:tell
set "TITLE=%~1"
set "WORDS="
:nextWord
shift
if "%~1"=="" goto say
set WORDS=%WORDS% %1
goto nextWord
:say
>>"%REPORT%" echo.
>>"%REPORT%" echo == %TITLE%:%WORDS%
%WORDS% >>"%REPORT%" 2>&1
if errorlevel 1 >>"%REPORT%" echo It ended with %ERRORLEVEL%.
exit /b 0
