; The installer of Norvanta KeyWarden for 64-bit Windows, and its uninstaller. Built by
; packaging/setup.sh, which defines:
;   VERSION         1.2.3
;   OUTPUT          the file to write
;   MODULE          nvksprovider.dll
;   ICON            the product's icon
;   INSTALL_FILES   a list of File commands: all files for $INSTDIR
;   UNINSTALL_FILES the same files as Delete commands
;   SIZE_KB         their size, for the list of installed programs
;   SIGN            optional: a command that signs the file given as its last argument, for the uninstaller
;
; Exit codes of both: 0 success; 1 cancelled; 2 aborted, or refused before anything was changed; 3 success
; except that the registration with CNG (or its removal) failed; 4 success except that the configuration of
; all users could not be written; 3010 success, and Windows removes files that are in use at its next start.

Target amd64-unicode
SetCompressor /SOLID lzma
ManifestDPIAware true
RequestExecutionLevel admin

!include FileFunc.nsh
!include MUI2.nsh
!include LogicLib.nsh
!include StrFunc.nsh
!include TextFunc.nsh
!include WinMessages.nsh
!include WordFunc.nsh

!define PRODUCT "Norvanta KeyWarden"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\NorvantaKeyWarden"
!define ENVIRONMENT_KEY "SYSTEM\CurrentControlSet\Control\Session Manager\Environment"
!define PACKAGE_KEY "Software\Norvanta\KeyWarden"
!define REFUSED 2
!define NOT_REGISTERED 3
!define NOT_CONFIGURED 4
!define RESTART_NEEDED 3010 ; ERROR_SUCCESS_REBOOT_REQUIRED

${StrStr} ; StrFunc.nsh wants it said which of its functions are used

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
Var Parameters ; the part of the command line that is not yet read
Var Parameter  ; one word of it
Var Arguments  ; of "keywarden init"; empty: no configuration is written
Var Outcome    ; the exit code so far

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

; Removes the file $1. One that a program has loaded cannot be removed, but it can be renamed; Windows then
; removes it at the next start.
Function ${UN}RemoveProgram
    ${IfNot} ${FileExists} $1
        Return
    ${EndIf}
    ClearErrors
    Delete $1
    ${If} ${Errors}
        ${${UN}GetParent} $1 $0
        GetTempFileName $0 $0
        Delete $0
        ClearErrors
        Rename $1 $0
        ${If} ${Errors}
            DetailPrint "$1 is in use and was not removed."
        ${Else}
            Delete /REBOOTOK $0
            SetRebootFlag true
            DetailPrint "$1 is in use. Windows removes the old file at the next start."
        ${EndIf}
    ${EndIf}
FunctionEnd

; Takes the next word from $Parameters to $Parameter, without its quotes. Empty at the end.
Function ${UN}NextParameter
    StrCpy $Parameter ""
    StrCpy $1 0 ; 1: inside quotes
    ${Do}
        StrCpy $0 $Parameters 1
        StrCpy $Parameters $Parameters "" 1
        ${If} $0 == ""
            ${ExitDo}
        ${ElseIf} $0 == '"'
            IntOp $1 1 - $1
        ${ElseIf} $0 != " "
        ${OrIf} $1 = 1
            StrCpy $Parameter "$Parameter$0"
        ${ElseIf} $Parameter != ""
            ${ExitDo}
        ${EndIf}
    ${Loop}
FunctionEnd

; The exit code: what failed counts more than a restart.
Function ${UN}Finish
    ${If} $Outcome = 0
    ${AndIf} ${RebootFlag}
        StrCpy $Outcome ${RESTART_NEEDED}
    ${EndIf}
    SetErrorLevel $Outcome
FunctionEnd

!macroend
!insertmacro SHARED ""
!insertmacro SHARED "un."

; Writes $2 to the standard output or to the caller's console, and shows it if there is neither.
Function Say
    System::Call 'kernel32::GetStdHandle(i -11) p .r0' ; STD_OUTPUT_HANDLE
    ${If} $0 P<> 0
        FileWrite $0 "$2$\r$\n"
        Return
    ${EndIf}
    System::Call 'kernel32::AttachConsole(i -1) i .r1' ; ATTACH_PARENT_PROCESS
    ${If} $1 = 0
        MessageBox MB_OK $2 /SD IDOK
        Return
    ${EndIf}
    System::Call 'kernel32::GetStdHandle(i -11) p .r0'
    FileWrite $0 "$\r$\n$2$\r$\n"
FunctionEnd

Function ShowHelp
    StrCpy $2 "${PRODUCT} ${VERSION}$\r$\n$\r$\n\
        /S                 install without windows$\r$\n\
        /P11FILE=PATH      write the configuration of all users for this PKCS#11 library$\r$\n\
        /MODE=MODE         modern (the default) or classic; with /P11FILE$\r$\n\
        /LOGTYPES=TYPES    FILE, CONSOLE, both with a comma, or NONE; with /P11FILE$\r$\n\
        /LOGSTORE=FOLDER   the folder of the log; ~ is the user's profile; with /P11FILE$\r$\n\
        /LOGROTATE=DAYS    how long log files are kept; with /P11FILE$\r$\n\
        /D=FOLDER          where to install; last, and without quotes$\r$\n\
        /?                 show this help$\r$\n$\r$\n\
        Exit codes: 0 success, 1 cancelled, 2 refused or aborted, 3 not registered with CNG,$\r$\n\
        4 configuration not written, 3010 success, restart needed."
    Call Say
    SetErrorLevel 0
    Quit
FunctionEnd

; Nothing has been changed. $2 says why.
Function Refuse
    Call Say
    SetErrorLevel ${REFUSED}
    Quit
FunctionEnd

; NAME, OPTION of "keywarden init", END: adds the value of a parameter /NAME=VALUE to $Arguments, and goes
; on with the next parameter. END is a blank for a path: it keeps a backslash from quoting what follows, and
; the program takes it away.
!macro TakeValue NAME OPTION END
    StrLen $0 "/${NAME}="
    StrCpy $1 $Parameter $0
    ${If} $1 == "/${NAME}="
        StrCpy $1 $Parameter "" $0
        StrCpy $Arguments '$Arguments ${OPTION} "$1${END}"'
        ${Continue}
    ${EndIf}
!macroend

Function ReadParameters
    StrCpy $Arguments ""
    ${GetParameters} $Parameters
    ${Do}
        Call NextParameter
        StrCpy $0 $Parameter 3
        ${If} $Parameter == ""
        ${OrIf} $0 == "/D=" ; the rest is the folder, which has been read
            ${ExitDo}
        ${ElseIf} $Parameter == "/S"
        ${OrIf} $Parameter == "/NCRC"
            ${Continue}
        ${ElseIf} $Parameter == "/?"
            Call ShowHelp
        ${ElseIf} $Parameter == "/MODE=modern"
        ${OrIf} $Parameter == "/MODE=classic"
            StrCpy $0 $Parameter "" 6
            StrCpy $Arguments "$Arguments --mode $0"
            ${Continue}
        ${EndIf}
        !insertmacro TakeValue P11FILE --p11 " "
        !insertmacro TakeValue LOGTYPES --log-types ""
        !insertmacro TakeValue LOGSTORE --log-dir " "
        !insertmacro TakeValue LOGROTATE --log-rotate ""
        StrCpy $2 "Unknown parameter: $Parameter. /? shows the parameters."
        Call Refuse
    ${Loop}
FunctionEnd

Function .onInit
    SetRegView 64
    StrCpy $Outcome 0
    Call ReadParameters
    ${If} $Arguments != ""
        ${StrStr} $0 $Arguments '--p11 "'
        ${If} $0 == ""
            StrCpy $2 "/MODE, /LOGTYPES, /LOGSTORE and /LOGROTATE need /P11FILE, the full path of the \
                token's PKCS#11 library."
            Call Refuse
        ${EndIf}
    ${EndIf}
    ReadRegStr $0 HKLM "${PACKAGE_KEY}" "InstallerPackage"
    ${If} $0 != ""
        StrCpy $2 "${PRODUCT} was installed by its Windows Installer package (MSI). Remove it first."
        Call Refuse
    ${EndIf}
    ReadRegStr $0 HKLM "${UNINSTALL_KEY}" "DisplayVersion"
    ${If} $0 != ""
        ${VersionCompare} $0 ${VERSION} $1
        ${If} $1 = 1 ; the first is newer
            StrCpy $2 "A newer version of ${PRODUCT} is installed: $0. Remove it first."
            Call Refuse
        ${EndIf}
    ${EndIf}
FunctionEnd

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
        StrCpy $Outcome ${NOT_REGISTERED}
        MessageBox MB_OK|MB_ICONEXCLAMATION "All files are installed, but the module could not be \
            registered with CNG.$\r$\n$\r$\n$1" /SD IDOK
    ${EndIf}
FunctionEnd

Function WriteConfiguration
    ${If} $Arguments == ""
        Return
    ${EndIf}
    nsExec::ExecToStack '"$INSTDIR\keywarden.exe" init --all-users --no-test --force$Arguments'
    Pop $0
    Pop $1
    ${TrimNewLines} $1 $1
    DetailPrint $1
    ${If} $0 != 0
        StrCpy $Outcome ${NOT_CONFIGURED}
        MessageBox MB_OK|MB_ICONEXCLAMATION "All files are installed, but the configuration of all users \
            could not be written.$\r$\n$\r$\n$1" /SD IDOK
    ${EndIf}
FunctionEnd

; An installation in another folder moves to $INSTDIR: its own uninstaller takes it away first.
Function RemoveOtherFolder
    ReadRegStr $1 HKLM "${UNINSTALL_KEY}" "InstallLocation"
    ${If} $1 == ""
    ${OrIf} $1 == $INSTDIR
    ${OrIfNot} ${FileExists} "$1\uninstall.exe"
        Return
    ${EndIf}
    DetailPrint "Moving the installation from $1."
    ExecWait '"$1\uninstall.exe" /S /MOVE _?=$1'
    Delete "$1\uninstall.exe"
    RMDir $1 ; only if it is empty
FunctionEnd

; The programs first: what is in use must not stay as it was without a word.
Function InstallFiles
    StrCpy $1 "$INSTDIR\keywarden.exe"
    ${If} ${FileExists} $1
        RMDir /r "$INSTDIR\docs" ; documents of an earlier version can have other names
    ${EndIf}
    Call RemoveProgram
    StrCpy $1 "$SYSDIR\nvksprovider.dll"
    Call RemoveProgram
    SetOverwrite try
    ClearErrors
    !include "${INSTALL_FILES}"
    ${If} ${Errors}
        Abort "A file in $INSTDIR cannot be written."
    ${EndIf}
    SetOutPath $SYSDIR
    File "${MODULE}"
    ${If} ${Errors}
        Abort "$SYSDIR\nvksprovider.dll cannot be written."
    ${EndIf}
    SetOverwrite on
FunctionEnd

Section
    SetRegView 64
    SetShellVarContext all
    Call RemoveOtherFolder
    Call InstallFiles

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
    Call WriteConfiguration
    Call Finish
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

; What another installation does not need. /MOVE: this one goes to another folder.
Function un.RemoveRegistration
    MessageBox MB_YESNO|MB_ICONQUESTION|MB_DEFBUTTON2 "Remove the certificates of tokens from your \
        certificate store as well? Without ${PRODUCT}, programs cannot use their keys." /SD IDNO \
        IDNO keep
    nsExec::ExecToLog '"$INSTDIR\keywarden.exe" clean --all --yes'
    Pop $0
keep:
    nsExec::ExecToLog '"$INSTDIR\keywarden.exe" init --all-users --remove'
    Pop $0
    nsExec::ExecToStack '"$INSTDIR\keywarden.exe" unregister'
    Pop $0
    Pop $1
    ${TrimNewLines} $1 $1
    DetailPrint $1
    ${If} $0 != 0
        StrCpy $Outcome ${NOT_REGISTERED}
        MessageBox MB_OK|MB_ICONEXCLAMATION "The module's registration with CNG could not be \
            removed.$\r$\n$\r$\n$1" /SD IDOK
    ${EndIf}
    StrCpy $1 "$SYSDIR\nvksprovider.dll"
    Call un.RemoveProgram
FunctionEnd

Section Uninstall
    SetRegView 64
    SetShellVarContext all
    StrCpy $Outcome 0
    ${un.GetParameters} $Parameters
    ${Do}
        Call un.NextParameter
        ${If} $Parameter == ""
        ${OrIf} $Parameter == "/MOVE"
            ${ExitDo}
        ${EndIf}
    ${Loop}
    ${If} $Parameter != "/MOVE"
        Call un.RemoveRegistration
    ${EndIf}
    StrCpy $1 "$INSTDIR\keywarden.exe"
    Call un.RemoveProgram
    Call un.RemoveFromPath
    !include "${UNINSTALL_FILES}"
    Delete "$SMPROGRAMS\${PRODUCT}\Check KeyWarden.lnk"
    RMDir "$SMPROGRAMS\${PRODUCT}"
    DeleteRegKey HKLM "${UNINSTALL_KEY}"
    Delete "$INSTDIR\uninstall.exe"
    SetOutPath $TEMP ; a folder that is in use cannot be removed
    RMDir $INSTDIR   ; only if it is empty
    ${If} ${RebootFlag}
        RMDir /REBOOTOK $INSTDIR
    ${EndIf}
    ${If} $Parameter != "/MOVE"
        Call un.RemoveConfiguration
    ${EndIf}
    Call un.Finish
SectionEnd
