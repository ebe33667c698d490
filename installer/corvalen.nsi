; The Corvalen installer. NSIS copies the files; CorvalenSetup.exe is the whole user interface,
; driven through the corvalen plug-in (installer/plugin). scripts/build-installer.sh runs:
;   makensis -DBIN=<Windows programs> -DPAYLOAD=<application files> -DPLUGINS=<corvalen.dll>
;            -DOUT=<installer> [-DVERSION=x.x.x.x] installer/corvalen.nsi
; Options of the installer: /unattended (installs at once, no agreement, running copies of the
; application closed unasked), /fixedfolder (the folder cannot be changed).
Unicode true
Target amd64-unicode
SetCompressor /SOLID lzma
RequestExecutionLevel user
; No NSIS pages: the front end asks everything.
SilentInstall silent

!ifndef VERSION
  !define VERSION "3.0.0.5"
!endif
!define REGKEY "Software\Corvalen"

Name "Corvalen"
OutFile "${OUT}"
InstallDir "$LOCALAPPDATA\Programs\Tandemo"
!addplugindir /amd64-unicode "${PLUGINS}"

!include FileFunc.nsh
!include LogicLib.nsh

; What an install leaves behind; the uninstaller and a cancelled install remove exactly this.
!macro RemoveInstalled
  Delete "$INSTDIR\Tandemo.exe"
  Delete "$INSTDIR\TandemoInstSvc.exe"
  RMDir /r "$INSTDIR\resources"
  Delete "$INSTDIR\Uninstall.exe"
  RMDir "$INSTDIR"
  DeleteRegKey HKCU "${REGKEY}"
!macroend

; Reports a section's end to the front end; the user may have closed it meanwhile.
!macro Progress PERCENT
  corvalen::Progress ${PERCENT}
  Pop $0
  ${If} $0 == "cancel"
    !insertmacro RemoveInstalled
    Abort
  ${EndIf}
!macroend

; 1 when the command line ($R6) has the option, else 0.
!macro Option NAME VAR
  ClearErrors
  ${GetOptions} $R6 "${NAME}" $0
  ${If} ${Errors}
    StrCpy ${VAR} 0
  ${Else}
    StrCpy ${VAR} 1
  ${EndIf}
!macroend

Section "-Service" SecService
  SetOutPath "$INSTDIR"
  File "${BIN}/TandemoInstSvc.exe"
  !insertmacro Progress 10
SectionEnd

Section "-Application" SecApplication
  SetOutPath "$INSTDIR"
  File "${BIN}/Tandemo.exe"
  !insertmacro Progress 30
SectionEnd

Section "-Resources" SecResources
  SetOutPath "$INSTDIR\resources"
  File /r "${PAYLOAD}/*.*"
  !insertmacro Progress 90
SectionEnd

Section "-Register" SecRegister
  WriteUninstaller "$INSTDIR\Uninstall.exe"
  WriteRegStr HKCU "${REGKEY}" "Version" "${VERSION}"
  WriteRegStr HKCU "${REGKEY}" "InstallDir" "$INSTDIR"
SectionEnd

Function .onInit
  ReadRegStr $R1 HKCU "${REGKEY}" "Version"
  ${If} $R1 == ""
    StrCpy $R1 "0.0.0.0"
  ${EndIf}
  ReadRegStr $R2 HKCU "${REGKEY}" "InstallDir"
  ${If} $R2 != ""
    StrCpy $INSTDIR $R2
  ${EndIf}
  ; The front end starts the helper service from its own folder.
  InitPluginsDir
  SetOutPath "$PLUGINSDIR"
  File "${BIN}/CorvalenSetup.exe"
  File "${BIN}/TandemoInstSvc.exe"
  ; Space needed, in MB, from the sections' sizes in KB.
  StrCpy $R3 0
  ${ForEach} $R4 ${SecService} ${SecRegister} + 1
    SectionGetSize $R4 $R5
    IntOp $R3 $R3 + $R5
  ${Next}
  IntOp $R3 $R3 + 1023
  IntOp $R3 $R3 / 1024
  ${GetParameters} $R6
  !insertmacro Option /fixedfolder $R7
  !insertmacro Option /unattended $R8
  corvalen::Start "$PLUGINSDIR\CorvalenSetup.exe" "$PLUGINSDIR\corvalen.ipc" "$INSTDIR" $R3 \
      "${VERSION}" $R1 $R7 $R8
  Pop $0
  ${If} $0 != "ok"
    Abort
  ${EndIf}
  ; Back when the user starts the installation; empty when the user or the version gate gave up.
  corvalen::WaitForChoice
  Pop $0
  ${If} $0 == ""
    Abort
  ${EndIf}
  StrCpy $INSTDIR $0
FunctionEnd

Function .onInstSuccess
  corvalen::Finish
  Pop $0
  ${If} $0 == "start"
    Exec '"$INSTDIR\Tandemo.exe"'
  ${EndIf}
FunctionEnd

Section "Uninstall"
  !insertmacro RemoveInstalled
SectionEnd
