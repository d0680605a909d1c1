$ErrorActionPreference = 'Stop'
$arguments = @{
  PackageName    = 'quorkeri-service'
  FileType       = 'msi'
  SilentArgs     = '@PRODUCT_CODE@ /qn /norestart'
  ValidExitCodes = @(0, 1605, 3010)
}
Uninstall-ChocolateyPackage @arguments
