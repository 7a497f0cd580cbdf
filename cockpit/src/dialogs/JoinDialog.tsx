import { Modal, ModalBody, ModalHeader } from "@patternfly/react-core";

export default function JoinDialog(props: { onClose: () => void }) {
  return (
    <Modal isOpen variant="medium" onClose={props.onClose} aria-labelledby="dialog-title">
      <ModalHeader title="JoinDialog" labelId="dialog-title" />
      <ModalBody />
    </Modal>
  );
}
