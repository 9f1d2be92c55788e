; The installer of Norvanta KeyWarden for 64-bit Windows, and its uninstaller. Built by
; scripts/package.sh, which defines:
;   VERSION         1.2.3
;   OUTPUT          the file to write
;   MODULE          nvksprovider.dll
;   ICON            the product's icon
;   INSTALL_FILES   a list of File commands: all files for $INSTDIR
;   UNINSTALL_FILES the same files as Delete commands
;   SIZE_KB         their size, for the list of installed programs
;   SIGN            optional: a command that signs the file given as its last argument, for the uninstaller
;
; Exit codes of both: 0 success, 1 cancelled, 2 aborted, 3 success except that the registration with CNG
; (or its removal) failed.

Target amd64-unicode
SetCompressor /SOLID lzma
ManifestDPIAware true
RequestExecutionLevel admin

!include MUI2.nsh
!include LogicLib.nsh
!include TextFunc.nsh
!include WinMessages.nsh

!define PRODUCT "Norvanta KeyWarden"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\NorvantaKeyWarden"
!define ENVIRONMENT_KEY "SYSTEM\CurrentControlSet\Control\Session Manager\Environment"
!define NOT_REGISTERED 3

Name "${PRODUCT}"
OutFile "${OUTPUT}"
InstallDir "$PROGRAMFILES64\${PRODUCT}"
InstallDirRegKey HKLM "${UNINSTALL_KEY}" "InstallLocation"
BrandingText "${PRODUCT} ${VERSION}"
ShowInstDetails show
ShowUninstDetails show

VIProductVersion "${VERSION}.0"
VIAddVersionKey "ProductName" "${PRODUCT}"
VIAddVersionKey "CompanyName" "Norvanta"
VIAddVersionKey "FileDescription" "Installer of ${PRODUCT}"
VIAddVersionKey "FileVersion" "${VERSION}"
VIAddVersionKey "ProductVersion" "${VERSION}"
VIAddVersionKey "LegalCopyright" "Norvanta"

!define MUI_ICON "${ICON}"
!define MUI_UNICON "${ICON}"
!define MUI_FINISHPAGE_NOAUTOCLOSE
!define MUI_FINISHPAGE_TITLE "${PRODUCT} is installed"
!define MUI_FINISHPAGE_TEXT "Next, in a new terminal: $\"keywarden init$\" writes your \
    configuration, $\"keywarden check$\" checks it."
!insertmacro MUI_PAGE_WELCOME
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

!ifdef SIGN
    !uninstfinalize `${SIGN} "%1"`
!endif

Var PathText  ; the machine's PATH as it is in the registry
Var PathType  ; 1 REG_SZ, 2 REG_EXPAND_SZ
Var PathFits  ; 1: PathText is complete and has room for one more folder
Var PathRest  ; PathText without the product's folder
Var PathFound ; 1: the folder was in it

; Shared by installer and uninstaller. Names of functions of the uninstaller must begin with "un.".
!macro SHARED UN

; A string has at most ${NSIS_MAX_STRLEN} characters here, and a longer value is read as an empty one. So
; the function first asks Windows for the length: a PATH that does not fit must not be written back.
Function ${UN}ReadPath
    StrCpy $PathText ""
    StrCpy $PathType 2
    StrCpy $PathFits 0
    ; -2147483646: HKEY_LOCAL_MACHINE. 0x20119: KEY_READ, KEY_WOW64_64KEY.
    System::Call 'advapi32::RegOpenKeyExW(p -2147483646, w "${ENVIRONMENT_KEY}", i 0, i 0x20119, \
        *p .r1) i .r0'
    ${If} $0 != 0
        Return
    ${EndIf}
    System::Call 'advapi32::RegQueryValueExW(p r1, w "Path", p 0, *i .r2, p 0, *i .r3) i .r0'
    System::Call 'advapi32::RegCloseKey(p r1)'
    ${If} $0 = 2 ; ERROR_FILE_NOT_FOUND: no PATH, which is treated like an empty one
        StrCpy $PathFits 1
        Return
    ${EndIf}
    IntOp $3 $3 / 2
    StrLen $4 $INSTDIR
    IntOp $3 $3 + $4
    IntOp $3 $3 + 2 ; the separating semicolon and the terminator
    ${If} $0 != 0
    ${OrIf} $2 < 1
    ${OrIf} $2 > 2
    ${OrIf} $3 > ${NSIS_MAX_STRLEN}
        Return
    ${EndIf}
    StrCpy $PathType $2
    ClearErrors
    ReadRegStr $PathText HKLM "${ENVIRONMENT_KEY}" "Path"
    ${IfNot} ${Errors}
        StrCpy $PathFits 1
    ${EndIf}
FunctionEnd

; Writes $0 and notifies the running programs.
Function ${UN}WritePath
    ${If} $0 == ""
        DeleteRegValue HKLM "${ENVIRONMENT_KEY}" "Path"
    ${ElseIf} $PathType = 1
        WriteRegStr HKLM "${ENVIRONMENT_KEY}" "Path" $0
    ${Else}
        WriteRegExpandStr HKLM "${ENVIRONMENT_KEY}" "Path" $0
    ${EndIf}
    SendMessage ${HWND_BROADCAST} ${WM_WININICHANGE} 0 "STR:Environment" /TIMEOUT=5000
FunctionEnd

; Splits $PathText into $PathRest and $PathFound. The entries of other products do not change, and
; neither do empty ones.
Function ${UN}SplitPath
    StrCpy $PathRest ""
    StrCpy $PathFound 0
    StrCpy $0 $PathText ; the part that is not yet examined
    StrCpy $1 ""        ; the separator before the next entry of $PathRest
    ${Do}
        StrCpy $2 0 ; the length of the first entry
        ${Do}
            StrCpy $3 $0 1 $2
            ${If} $3 == ""
            ${OrIf} $3 == ";"
                ${ExitDo}
            ${EndIf}
            IntOp $2 $2 + 1
        ${Loop}
        StrCpy $4 ""
        ${If} $2 > 0
            StrCpy $4 $0 $2
        ${EndIf}
        ${If} $4 == $INSTDIR
            StrCpy $PathFound 1
        ${Else}
            StrCpy $PathRest "$PathRest$1$4"
            StrCpy $1 ";"
        ${EndIf}
        ${If} $3 == ""
            ${ExitDo}
        ${EndIf}
        IntOp $2 $2 + 1
        StrCpy $0 $0 "" $2
    ${Loop}
FunctionEnd

; Removes the module from the system's folder. A module that a program has loaded cannot be removed, but
; it can be renamed; Windows then removes it at the next start.
Function ${UN}RemoveModule
    ${IfNot} ${FileExists} "$SYSDIR\nvksprovider.dll"
        Return
    ${EndIf}
    ClearErrors
    Delete "$SYSDIR\nvksprovider.dll"
    ${If} ${Errors}
        GetTempFileName $0 $SYSDIR
        Delete $0
        ClearErrors
        Rename "$SYSDIR\nvksprovider.dll" $0
        ${If} ${Errors}
            DetailPrint "$SYSDIR\nvksprovider.dll is in use and was not removed."
        ${Else}
            Delete /REBOOTOK $0
            DetailPrint "The module is in use. Windows removes its old file at the next start."
        ${EndIf}
    ${EndIf}
FunctionEnd

!macroend
!insertmacro SHARED ""
!insertmacro SHARED "un."

Function AddToPath
    Call ReadPath
    ${If} $PathFits = 0
        MessageBox MB_OK|MB_ICONEXCLAMATION "The machine's PATH is too long to be changed safely, \
            so it was left as it is. Add this folder to it yourself:$\r$\n$\r$\n$INSTDIR" /SD IDOK
        DetailPrint "PATH is too long to be changed safely; it was left as it is."
        Return
    ${EndIf}
    Call SplitPath
    ${If} $PathFound = 1
        Return
    ${EndIf}
    ; Removing the folder later must restore the same text, so a semicolon at the end stays there.
    StrCpy $1 $PathText 1 -1
    ${If} $PathText == ""
        StrCpy $0 $INSTDIR
    ${ElseIf} $1 == ";"
        StrCpy $0 "$PathText$INSTDIR;"
    ${Else}
        StrCpy $0 "$PathText;$INSTDIR"
    ${EndIf}
    Call WritePath
FunctionEnd

Function un.RemoveFromPath
    Call un.ReadPath
    Call un.SplitPath
    ${If} $PathFits = 1
    ${AndIf} $PathFound = 1
        StrCpy $0 $PathRest
        Call un.WritePath
    ${ElseIf} $PathFits = 0
        DetailPrint "PATH is too long to be changed safely; it was left as it is."
    ${EndIf}
FunctionEnd

Function RegisterModule
    nsExec::ExecToStack '"$INSTDIR\keywarden.exe" register'
    Pop $0
    Pop $1
    ${TrimNewLines} $1 $1
    DetailPrint $1
    ${If} $0 != 0
        SetErrorLevel ${NOT_REGISTERED}
        MessageBox MB_OK|MB_ICONEXCLAMATION "All files are installed, but the module could not be \
            registered with CNG.$\r$\n$\r$\n$1" /SD IDOK
    ${EndIf}
FunctionEnd

Section
    SetRegView 64
    SetShellVarContext all
    ; Documents of an earlier version can have other names.
    ${If} ${FileExists} "$INSTDIR\keywarden.exe"
        RMDir /r "$INSTDIR\docs"
    ${EndIf}
    !include "${INSTALL_FILES}"

    Call RemoveModule
    SetOutPath $SYSDIR
    SetOverwrite try
    ClearErrors
    File "${MODULE}"
    ${If} ${Errors}
        Abort "$SYSDIR\nvksprovider.dll cannot be written."
    ${EndIf}
    SetOverwrite on

    ; Opens a console that stays open, in the folder of the current user.
    CreateDirectory "$SMPROGRAMS\${PRODUCT}"
    StrCpy $OUTDIR "%USERPROFILE%"
    CreateShortcut "$SMPROGRAMS\${PRODUCT}\Check KeyWarden.lnk" "$SYSDIR\cmd.exe" \
        '/k ""$INSTDIR\keywarden.exe" check"' "$INSTDIR\keywarden.exe" 0 SW_SHOWNORMAL "" \
        "Checks the configuration of the token"
    SetOutPath $INSTDIR

    WriteUninstaller "$INSTDIR\uninstall.exe"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "${PRODUCT}"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "Publisher" "Norvanta"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\uninstall.exe"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
    WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "EstimatedSize" ${SIZE_KB}
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1

    Call AddToPath
    Call RegisterModule
SectionEnd

; Removes the files of the user who runs this. Files of other users are never touched.
Function un.RemoveConfiguration
    SetShellVarContext current
    StrCpy $0 "$PROFILE\.norvanta-keywarden"
    ${IfNot} ${FileExists} "$0\nvksprovider.conf"
        Return
    ${EndIf}
    MessageBox MB_YESNO|MB_ICONQUESTION|MB_DEFBUTTON2 "Remove your configuration and its log files \
        as well?$\r$\n$\r$\n$0" /SD IDNO IDYES remove
    Return
remove:
    Delete "$0\nvksprovider.conf"
    Delete "$0\logs\nvksprovider-*.log"
    RMDir "$0\logs" ; removes both folders only if they are empty
    RMDir $0
FunctionEnd

Section Uninstall
    SetRegView 64
    SetShellVarContext all
    nsExec::ExecToStack '"$INSTDIR\keywarden.exe" unregister'
    Pop $0
    Pop $1
    ${TrimNewLines} $1 $1
    DetailPrint $1
    ${If} $0 != 0
        SetErrorLevel ${NOT_REGISTERED}
        MessageBox MB_OK|MB_ICONEXCLAMATION "The module's registration with CNG could not be \
            removed.$\r$\n$\r$\n$1" /SD IDOK
    ${EndIf}
    Call un.RemoveModule
    Call un.RemoveFromPath
    !include "${UNINSTALL_FILES}"
    Delete "$SMPROGRAMS\${PRODUCT}\Check KeyWarden.lnk"
    RMDir "$SMPROGRAMS\${PRODUCT}"
    DeleteRegKey HKLM "${UNINSTALL_KEY}"
    Delete "$INSTDIR\uninstall.exe"
    SetOutPath $TEMP ; a folder that is in use cannot be removed
    RMDir $INSTDIR   ; only if it is empty
    Call un.RemoveConfiguration
SectionEnd
