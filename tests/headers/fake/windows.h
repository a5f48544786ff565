// Stands in for <windows.h> where there is none: the macros of it that take names away from others.
#pragma once

#define min(a, b) (((a) < (b)) ? (a) : (b))
#define max(a, b) (((a) > (b)) ? (a) : (b))
#define near
#define far
#define small char
#define interface struct
#define IN
#define OUT
#define OPTIONAL
#define CONST const
#define VOID void
#define TRUE 1
#define FALSE 0
#define ERROR 0
#define DELETE 0x00010000L
#define SYNCHRONIZE 0x00100000L
#define NO_ERROR 0L
#define IGNORE 0
#define INFINITE 0xFFFFFFFF
#define STRICT 1
#define Yield()
#define FreeModule(module) FreeLibrary((module))
#define CaptureStackBackTrace RtlCaptureStackBackTrace
#define CopyMemory RtlCopyMemory
#define FillMemory RtlFillMemory
#define MoveMemory RtlMoveMemory
#define ZeroMemory RtlZeroMemory

#ifdef UNICODE
#  define VLM_FAKE_NAME(name) name##W
#else
#  define VLM_FAKE_NAME(name) name##A
#endif
#define AddAtom VLM_FAKE_NAME(AddAtom)
#define CopyFile VLM_FAKE_NAME(CopyFile)
#define CreateDirectory VLM_FAKE_NAME(CreateDirectory)
#define CreateFile VLM_FAKE_NAME(CreateFile)
#define CreateWindow VLM_FAKE_NAME(CreateWindow)
#define DeleteFile VLM_FAKE_NAME(DeleteFile)
#define EnumResourceNames VLM_FAKE_NAME(EnumResourceNames)
#define FindFirstFile VLM_FAKE_NAME(FindFirstFile)
#define FindNextFile VLM_FAKE_NAME(FindNextFile)
#define FindResource VLM_FAKE_NAME(FindResource)
#define FindText VLM_FAKE_NAME(FindText)
#define FormatMessage VLM_FAKE_NAME(FormatMessage)
#define GetClassName VLM_FAKE_NAME(GetClassName)
#define GetCommandLine VLM_FAKE_NAME(GetCommandLine)
#define GetCurrentDirectory VLM_FAKE_NAME(GetCurrentDirectory)
#define GetEnvironmentVariable VLM_FAKE_NAME(GetEnvironmentVariable)
#define GetFileAttributes VLM_FAKE_NAME(GetFileAttributes)
#define GetFullPathName VLM_FAKE_NAME(GetFullPathName)
#define GetMessage VLM_FAKE_NAME(GetMessage)
#define GetModuleFileName VLM_FAKE_NAME(GetModuleFileName)
#define GetModuleHandle VLM_FAKE_NAME(GetModuleHandle)
#define GetObject VLM_FAKE_NAME(GetObject)
#define GetTempFileName VLM_FAKE_NAME(GetTempFileName)
#define GetTempPath VLM_FAKE_NAME(GetTempPath)
#define GetUserName VLM_FAKE_NAME(GetUserName)
#define LoadLibrary VLM_FAKE_NAME(LoadLibrary)
#define LoadLibraryEx VLM_FAKE_NAME(LoadLibraryEx)
#define LoadString VLM_FAKE_NAME(LoadString)
#define MessageBox VLM_FAKE_NAME(MessageBox)
#define MoveFile VLM_FAKE_NAME(MoveFile)
#define OutputDebugString VLM_FAKE_NAME(OutputDebugString)
#define PeekMessage VLM_FAKE_NAME(PeekMessage)
#define PostMessage VLM_FAKE_NAME(PostMessage)
#define RemoveDirectory VLM_FAKE_NAME(RemoveDirectory)
#define ReplaceFile VLM_FAKE_NAME(ReplaceFile)
#define ReplaceText VLM_FAKE_NAME(ReplaceText)
#define ReportEvent VLM_FAKE_NAME(ReportEvent)
#define SendMessage VLM_FAKE_NAME(SendMessage)
#define SetCurrentDirectory VLM_FAKE_NAME(SetCurrentDirectory)
#define UpdateResource VLM_FAKE_NAME(UpdateResource)
