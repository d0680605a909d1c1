$ErrorActionPreference = 'Stop'
$file = Join-Path $PSScriptRoot '@MSI@'
if (-not (Test-Path $file)) { throw "$file is missing: put the release's MSI beside this script before 'choco pack'." }
if ((Get-FileHash $file -Algorithm SHA256).Hash -ne '@SHA256@') { throw "$file is not the MSI of this release." }
$arguments = @{
  PackageName    = 'quorkeri-service'
  FileType       = 'msi'
  File           = $file
  SilentArgs     = '/qn /norestart'
  ValidExitCodes = @(0, 3010)
}
Install-ChocolateyInstallPackage @arguments
if ((Get-Service 'quorkeri_service.exe').Status -ne 'Running') {
  Write-Warning 'The service does not run. Copy its companion, quorkeri_wrapper.exe, into bin, then type: net start quorkeri_service.exe'
}
